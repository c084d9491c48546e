/*
 * frfcam — camera-based vibration analysis.
 *
 * This is the one public header of the frfcam library. It is plain C (C99 or
 * later, or C++), and every function below is exported from the shared
 * library with C linkage. Nothing else is exported.
 *
 * ----------------------------------------------------------------------------
 * Two jobs
 * ----------------------------------------------------------------------------
 *
 * 1. FRF maps from video. A high-speed capture (a header file plus frame
 *    data files) is rendered into a "cube": for every pixel, the real-input
 *    DFT of its brightness over time, X[k] = (1/F) sum_t x[t] e^(-2 pi i k t/F)
 *    for k = 0 .. F/2, stored bin-major in numbered cube files beside the
 *    capture. Any frequency bin can then be read back as an 8-bit FRF map.
 *    These calls work on an FrfMapCalcs object.
 *
 * 2. Modal stability analysis. ComputeStability() is one synchronous call
 *    with no object: it fits polynomial models of a range of orders to
 *    measured FRFs, builds a stabilisation chart, selects physical poles, fits
 *    residues and writes everything as one protobuf record (schema
 *    talproto.proto, installed beside this header's package).
 *
 * ----------------------------------------------------------------------------
 * Object lifecycle
 * ----------------------------------------------------------------------------
 *
 *   CreateFrfMapCalcs            -> a new object, owned by the caller
 *   OpenCube(capture.hdr)        -> reads the header, sizes the cube, plans
 *   RenderCube(progress)         -> writes the cube files (once per OpenCube)
 *   SetReference / ReadFRFMap    -> any number of maps, any order of bins
 *   DeleteFrfMapCalcs            -> frees everything the object holds
 *
 * Every opening owns its working memory; opening again releases what the
 * previous opening held. ReadFRFMap needs an OpenCube of the same capture
 * (the cube files may have been rendered by another object or process).
 *
 * ----------------------------------------------------------------------------
 * Files
 * ----------------------------------------------------------------------------
 *
 * For the header path DIR/NAME.EXT the frame data lives in DIR/NAME/: division
 * files NAME_0001.div, NAME_0002.div, ... or one single file NAME.cap; the
 * cube is written to DIR/NAME/NAME_0001.fft, NAME_0002.fft, ... Numbers have
 * at least four digits. Each cube file holds whole bin planes (W x H complex
 * float pairs, real first, little-endian) and stays below 2 GiB.
 *
 * ----------------------------------------------------------------------------
 * Threads
 * ----------------------------------------------------------------------------
 *
 * The library starts no threads of its own apart from the shared worker pool
 * used inside RenderCube (and ComputeStability) to spread computation over
 * the cores; every call returns only when its work is done and all callbacks
 * run on the calling thread. Calls on different objects may run concurrently.
 * Calls on one object must not overlap, with one exception: CancelRenderCube
 * may be called from any thread while RenderCube runs.
 *
 * ----------------------------------------------------------------------------
 * Units and strings
 * ----------------------------------------------------------------------------
 *
 * Samples are brightness on a 12-bit scale (0..4095; 8-bit data is scaled by
 * 16). ComputeStability takes angular frequencies in rad/s and reports
 * frequencies in Hz and damping as ratios (not percent). Complex arrays are
 * interleaved pairs (real, imaginary).
 *
 * Strings passed in are NUL-terminated UTF-8 and are copied; the caller may
 * free them when the call returns. The one string passed out
 * (GetFrfMapCalcsName) is a NUL-terminated UTF-16 string allocated with
 * malloc(); the caller frees it with free().
 *
 * ----------------------------------------------------------------------------
 * Result codes
 * ----------------------------------------------------------------------------
 *
 * Each function documents its own codes; 0 always means success. No function
 * lets an exception, an assertion or a signal reach the host because of its
 * arguments or the content of files: a bad argument or bad data gives a
 * result code.
 */
#ifndef FRFCAM_FRFCAM_H
#define FRFCAM_FRFCAM_H

#ifdef __cplusplus
extern "C" {
#else
#include <uchar.h>
#endif

#if defined(_WIN32)
#if defined(FRFCAM_BUILDING_LIBRARY)
#define FRFCAM_API __declspec(dllexport)
#else
#define FRFCAM_API __declspec(dllimport)
#endif
#else
#define FRFCAM_API __attribute__((visibility("default")))
#endif

/* The object behind the FRF-map calls; opaque to the host. */
typedef struct FrfMapCalcs FrfMapCalcs;

/*
 * Progress of RenderCube: the whole percentage (0..100) of pixels rendered so
 * far. Called on the thread that called RenderCube, each value at most once
 * per render, in increasing order, ending with 100 when the render completes.
 */
typedef void (*ProgressCallback)(int percent);

/* ---- Object -------------------------------------------------------------- */

/*
 * Creates a new object whose name is a copy of `name` (UTF-8; NULL is taken
 * as the empty name). The caller owns the object and destroys it with
 * DeleteFrfMapCalcs. Returns NULL only when memory is exhausted.
 */
FRFCAM_API FrfMapCalcs* CreateFrfMapCalcs(const char* name);

/*
 * Destroys the object and frees everything it holds: strings, reference,
 * buffers, open file handles and the transform plan. NULL is ignored.
 */
FRFCAM_API void DeleteFrfMapCalcs(FrfMapCalcs* calcs);

/*
 * Returns a new UTF-16 copy of the object's name, NUL-terminated, allocated
 * with malloc(); the caller frees it with free(). An empty name gives an
 * empty string (never NULL for a valid object). Byte sequences of the name
 * that are not valid UTF-8 become U+FFFD. Returns NULL when `calcs` is NULL or
 * memory is exhausted.
 */
FRFCAM_API char16_t* GetFrfMapCalcsName(FrfMapCalcs* calcs);

/*
 * Replaces the object's name with a copy of `name` (UTF-8; NULL is taken as
 * the empty name). Does nothing when `calcs` is NULL.
 */
FRFCAM_API void SetFrfMapCalcsName(FrfMapCalcs* calcs, const char* name);

/* ---- Modal stability analysis -------------------------------------------- */

/* Results of ComputeStability. Codes -1 to -8 come from the checks made
 * before any work: nothing is written and nothing is printed. */
#define FRFCAM_STABILITY_OK 0
/* outputPath is NULL, or an array is NULL although its size is not zero. */
#define FRFCAM_STABILITY_NULL_ARGUMENT (-1)
/* numLines < 2. */
#define FRFCAM_STABILITY_TOO_FEW_LINES (-2)
/* numChannels < 1. */
#define FRFCAM_STABILITY_NO_CHANNELS (-3)
/* minOrder < 1. */
#define FRFCAM_STABILITY_BAD_MIN_ORDER (-4)
/* maxOrder < minOrder + 1: the chart needs at least two orders. */
#define FRFCAM_STABILITY_BAD_ORDER_RANGE (-5)
/* numLines <= maxOrder + 1: too few lines for the highest order. */
#define FRFCAM_STABILITY_ORDER_TOO_HIGH (-6)
/* A frequency is NaN or infinite, or all frequencies are equal. */
#define FRFCAM_STABILITY_BAD_FREQUENCIES (-7)
/* A value of frf or frfMatrix is NaN or infinite. */
#define FRFCAM_STABILITY_BAD_FRF (-8)
/* Memory ran out during the computation. No timing line is printed, and the
 * record is not written (or, if memory ran out while writing it, is
 * incomplete). */
#define FRFCAM_STABILITY_OUT_OF_MEMORY (-9)
/* The computation failed for another reason; as for -9. */
#define FRFCAM_STABILITY_FAILED (-10)

/*
 * Runs the whole modal stability analysis and writes its result record.
 *
 * For every model order n from minOrder to maxOrder a common-denominator
 * polynomial model is fitted to the FRFs of frfMatrix and its poles are
 * turned into natural frequencies (Hz) and damping ratios. Each order after
 * the first is compared with the order below it and its in-band poles are
 * classed s (stable in frequency and damping), f (frequency only), d
 * (damping only) or o (neither). Poles of class s that recur in enough orders
 * are selected as modes; a model of those modes plus an upper residual (a
 * constant) and a lower residual (LR / (i w)^2) is fitted to `frf` by least
 * squares and evaluated at every line.
 *
 *   outputPath          file that receives the record (UTF-8); an existing
 *                       file is replaced.
 *   frf                 numLines complex values (re, im pairs): the FRF the
 *                       residues are fitted to (often one column of
 *                       frfMatrix).
 *   frfMatrix           numLines x numChannels complex values, column by
 *                       column: line i of channel j is the pair at complex
 *                       index i + j * numLines.
 *   numChannels         columns of frfMatrix, >= 1.
 *   frequencies         numLines angular frequencies in rad/s (2 pi f).
 *   numLines            spectral lines, >= 2 and > maxOrder + 1.
 *   minOrder, maxOrder  order range, 1 <= minOrder < maxOrder.
 *   selectionTolerance  relative frequency difference below which two poles
 *                       count as the same mode when selecting (e.g. 0.01).
 *   minStableCount      orders (the pole's own included) in which a pole's
 *                       frequency must recur to be selected (e.g. 5).
 *   frequencyTolerance  relative frequency change up to which a pole counts
 *                       as stable against the order below (e.g. 0.01).
 *   dampingTolerance    relative damping change up to which a pole counts
 *                       as stable against the order below (e.g. 0.05).
 *   estimatorFlag1, estimatorFlag2
 *                       estimator options (0 or non-zero), passed through.
 *
 * The arrays are only read, and not kept after the call returns.
 *
 * The record is one talproto.stabChartData message in protobuf binary form
 * (no framing): numOrders = maxOrder - minOrder + 1; one orderInfo entry per
 * order from minOrder + 1 to maxOrder (the lowest order only seeds the
 * comparison), each with order_num and the frequencies of its s, f, d and o
 * poles; eigenFrequency and dampingFactor of the s poles of the last order;
 * frfnum; and, when any order had an s pole, selected_poles (Hz),
 * selected_dampingfactor (ratios), residues (in the order of selected_poles),
 * lower_residual, upper_residual and frfm (the fitted model, one value per
 * line). A line at w = 0, where the lower residual term is undefined, takes
 * no part in the fit; its frfm value is the model without that term.
 *
 * Console: when the record cannot be written, "Failed to write address
 * book." and a line end go to stderr and the call still returns 0. Every call
 * that passes the checks prints "took N ms to run." and a line end to stdout,
 * N being the whole milliseconds from the start of the estimation to the
 * closing of the file.
 *
 * Returns FRFCAM_STABILITY_OK (0) or one of the negative codes above. The
 * call keeps no state; concurrent calls are independent when they write
 * different files.
 */
FRFCAM_API int ComputeStability(const char* outputPath, const double* frf, const double* frfMatrix,
                                int numChannels, const double* frequencies, int numLines,
                                int minOrder, int maxOrder, double selectionTolerance,
                                int minStableCount, double frequencyTolerance,
                                double dampingTolerance, unsigned char estimatorFlag1,
                                unsigned char estimatorFlag2);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* FRFCAM_FRFCAM_H */
