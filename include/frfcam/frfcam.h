/*
 * frfcam — camera-based vibration analysis.
 *
 * This is the one public header of the frfcam library. It is plain C (C11 or
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
 * Beside them lies the cube's completion record, DIR/NAME/NAME.fft (64 bytes).
 * A render replaces it with one marked incomplete before it touches any cube
 * file, counts the pixel rows written after every block, and marks it
 * complete only after the last block is written. ReadFRFMap reads only what
 * the record says is complete; a cube without a record (written by another
 * program) is read as it stands. DeleteCube removes the record with the cube.
 *
 * Only regular files are opened, and no open ever waits: a FIFO or a device
 * where a header, frame data, cube file or record should be counts as
 * unreadable. Files are read with positioned reads into the object's own
 * memory, so a file that another process truncates or replaces gives short
 * reads, never a signal. Writes that would pass the process's file-size
 * limit fail with a result code instead of raising the signal for it; the
 * host's signal mask and handlers are never changed.
 *
 * ----------------------------------------------------------------------------
 * Threads
 * ----------------------------------------------------------------------------
 *
 * Every call is synchronous: it returns only when its work is done. The
 * library starts no threads of its own. All file reading and writing and
 * every callback happen on the calling thread. Inside RenderCube, ReadFRFMap
 * (and ComputeStability) computation is spread over the cores on a shared
 * worker pool (oneTBB's): while the pool decodes and transforms one block of
 * pixels, the calling thread writes the previous block (for a large cube
 * on Linux, queues most of its writes to the kernel, see RenderCube) and
 * reads the next block's bytes as stored; while the
 * pool turns one piece of a bin plane into map values, the calling thread
 * reads the next piece. Each call returns only after the pool has finished
 * every task it was given. Calls on
 * different objects may run concurrently. Calls on one object must not
 * overlap, with one exception: CancelRenderCube may be called from any
 * thread while RenderCube runs.
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
 * Windows (frfcam.dll)
 * ----------------------------------------------------------------------------
 *
 * The same twelve functions, under their plain names (frfcam.def), with the
 * x64 calling convention. Where Windows differs from Linux:
 *
 * - Strings passed in (names, paths, folders) are 8-bit strings in the
 *   process's ANSI code page (GetACP()), not UTF-8. Paths are converted with
 *   MultiByteToWideChar(CP_ACP) and opened through the wide-character API.
 * - GetFrfMapCalcsName returns a BSTR made with SysAllocString from the name
 *   converted from the ANSI code page; the caller frees it with
 *   SysFreeString (<oleauto.h>, OLEAUT32.dll). SysStringLen gives its length.
 * - Paths may use '\' or '/' and may start with a drive letter ("D:"). The
 *   data folder of DIR\NAME.EXT is DIR\NAME\ (joined with '\').
 * - Frame data, header and cube files are opened denying other writers: while
 *   an object reads them, no program can write to or truncate them (its open
 *   fails with a sharing violation). In the same way a render cannot replace
 *   cube files that another object or program holds open: it returns
 *   FRFCAM_RENDER_WRITE_FAILED and leaves those files as they were, but the
 *   cube counts as incomplete until a later render completes.
 * - DeleteCube cannot remove a cube file that is open anywhere (Windows keeps
 *   open files); such files are left in place. It matches ".fft" exactly, as
 *   on Linux, so "X.FFT" is kept although Windows names ignore case.
 * - Available memory for the render plan comes from GlobalMemoryStatusEx.
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
#include <wtypes.h> /* BSTR */
#if defined(FRFCAM_BUILDING_LIBRARY)
/* frfcam.def names the DLL's exports. No dllexport here: programs that link
 * the library statically (the CLI, the tests) then export nothing. */
#define FRFCAM_API
#else
#define FRFCAM_API __declspec(dllimport)
#endif
#else
#define FRFCAM_API __attribute__((visibility("default")))
#endif

/* The object behind the FRF-map calls; opaque to the host. */
typedef struct FrfMapCalcs FrfMapCalcs;

/*
 * Progress of RenderCube: the whole percentage (1..100) of pixels transformed
 * so far. Called on the thread that called RenderCube, only with values above
 * the last one reported (which starts at 0, so 0 is never reported), ending
 * with 100 when the render completes.
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
 * memory is exhausted. On Windows: a BSTR from SysAllocString of the name
 * converted from the ANSI code page, freed with SysFreeString.
 */
#if defined(_WIN32)
FRFCAM_API BSTR GetFrfMapCalcsName(FrfMapCalcs* calcs);
#else
FRFCAM_API char16_t* GetFrfMapCalcsName(FrfMapCalcs* calcs);
#endif

/*
 * Replaces the object's name with a copy of `name` (UTF-8; NULL is taken as
 * the empty name). Does nothing when `calcs` is NULL.
 */
FRFCAM_API void SetFrfMapCalcsName(FrfMapCalcs* calcs, const char* name);

/* ---- Cubes: open, render, read, delete ----------------------------------- */

/* Results of OpenCube. */
#define FRFCAM_OPEN_OK 0
/* The transform of the capture's frame count could not be prepared, or its
 * working memory is more than the machine has available. */
#define FRFCAM_OPEN_NO_TRANSFORM 1
/* A render, even one row at a time, needs more memory than the machine has
 * available; or working memory could not be obtained. */
#define FRFCAM_OPEN_NO_MEMORY (-1)
/* The capture cannot be rendered: NULL arguments; header missing or not a
 * regular file; width or height 0; frame count < 1; frames per division file
 * 0 (division captures); one bin plane (width x height x 8 bytes) over 2 GiB;
 * or more than 127 cube files needed. Nothing is planned or taken. A header
 * shorter than 2998 bytes is read as far as it goes, the missing bytes as
 * zero. */
#define FRFCAM_OPEN_BAD_CAPTURE 2

/*
 * Opens the capture whose header file is `capturePath` (UTF-8) as a cube:
 * reads the header, sets the cube's size (width, height, bins = F/2 + 1 for
 * F frames), plans the render blocks from the available memory and prepares
 * the transform. Reopening an object releases what the previous opening held.
 * Frame data files are not touched until RenderCube. Returns an
 * FRFCAM_OPEN_* code; only after 0 can RenderCube run. After any other code
 * the object reads as never opened: GetCubeDims gives zeros and ReadFRFMap
 * short reads of 0.
 */
FRFCAM_API int OpenCube(FrfMapCalcs* calcs, const char* capturePath);

/*
 * Writes the cube's width, height (pixels) and number of frequency bins, as
 * set by the last OpenCube (zeros before any, or after a failed one), and
 * returns the number of bins. Any of the three pointers may be NULL; a NULL
 * object gives zeros.
 */
FRFCAM_API unsigned GetCubeDims(FrfMapCalcs* calcs, unsigned* width, unsigned* height,
                                unsigned* bins);

/*
 * Asks a running RenderCube on this object to stop. Safe to call from any
 * thread at any time; a call made before RenderCube starts has no effect on
 * it (RenderCube clears the request when it starts). NULL is ignored.
 */
FRFCAM_API void CancelRenderCube(FrfMapCalcs* calcs);

/* Results of RenderCube. */
#define FRFCAM_RENDER_OK 0
/* Cancelled by CancelRenderCube: blocks finished before the cancel are in the
 * cube files, the interrupted block is not written, and the completion record
 * says the cube is incomplete (with the rows of the finished blocks). */
#define FRFCAM_RENDER_CANCELLED 1
/* Working memory could not be obtained, or the object is not opened (no
 * OpenCube, a failed one, or one that a previous render consumed). No cube
 * file is touched in the second case. */
#define FRFCAM_RENDER_NO_MEMORY 2
/* A cube file or the completion record could not be created or written (disk
 * full, file-size limit); what was written before stays, and the cube reads
 * as incomplete. */
#define FRFCAM_RENDER_WRITE_FAILED 3

/*
 * Renders the opened capture into its cube files: for every pixel the DFT of
 * its brightness over the F frames, scaled by 1/F, bins 0 .. F/2. The cube
 * files NAME_0001.fft ... are created (replacing older ones) in the capture's
 * data folder; each holds whole bin planes of width x height complex values
 * (float real, float imaginary, little-endian), pixels in raster order.
 *
 * `progress` (may be NULL) is called on the calling thread with whole
 * percentages of pixels transformed, each value at most once, increasing,
 * ending with 100 when every pixel is transformed. Frames whose data cannot
 * be read (a missing or short division file, one that is not a regular file)
 * render as zero brightness; every other frame is rendered as it is.
 *
 * On Linux each cube file is allocated at its full size when it is created
 * (the planes are written out of order, and writes into allocated space cost
 * markedly less), so a cube file of an unfinished render already has its
 * final size, its unwritten parts reading as zero; the completion record
 * says what is written. Where the file system cannot allocate ahead, or the
 * file would pass the file-size limit, files grow as they are written. On
 * Windows they always grow as they are written.
 *
 * On Linux a cube larger than a tenth of the memory available when the
 * render starts (where the kernel starts writing cached data back to the
 * disk) goes through the page cache only as far as its first files fit in
 * that tenth; the other cube files are written with direct I/O, past the
 * cache, into their allocated space. Their bytes go from the render's
 * buffers to the disk without a copy, the page cache keeps what the user had
 * in it, and the calling thread copies the cached files while the disk
 * writes the others. The calling thread queues these writes to the kernel
 * (Linux AIO, up to 128 in flight, no thread) and waits for them before it
 * reuses a buffer, counts a block as written, or returns. Direct writes need
 * planes of whole 4 KiB pages (width x height a multiple of 512) on a file
 * system that offers direct I/O; otherwise, and always on Windows, the whole
 * cube is written through the cache. Maps read from a directly written file
 * come from the disk the first time.
 *
 * Each render needs its own OpenCube before it; afterwards the object is
 * ready for ReadFRFMap. See "Threads" for which thread does what. Returns an
 * FRFCAM_RENDER_* code.
 */
FRFCAM_API int RenderCube(FrfMapCalcs* calcs, ProgressCallback progress);

/*
 * Sets the reference spectrum: the DFT of `signal` (`length` samples, scaled
 * by 1/length like the cube), entries 0 .. length/2, the rest zero. With
 * `length` equal to the capture's frame count its bins line up with the
 * cube's. `length` 0 clears the reference. A negative `length`, or a NULL
 * `signal` with a positive length, leaves the reference as it was.
 */
FRFCAM_API void SetReference(FrfMapCalcs* calcs, const float* signal, int length);

/* ReadFRFMap: `map` or `calcs` is NULL (nothing is read). */
#define FRFCAM_MAP_NULL_ARGUMENT (-8)
/* ReadFRFMap: working memory (about 9 bytes a pixel, kept by the object
 * between calls) could not be obtained or exceeds the memory available. */
#define FRFCAM_MAP_NO_MEMORY (-9)

/*
 * Writes the FRF map of bin `bin` into `map` (width x height bytes, owned by
 * the caller, raster order): for every pixel round(gain x |X / R|), rounded to
 * nearest with ties to even and saturated to 0..255, where X is the pixel's
 * cube value at that bin and R the reference value at that bin (any finite,
 * non-zero R gives the right quotient, however small or large). Without a
 * reference, where R is 0, or for a bin at or past the reference's length,
 * the map is round(gain x |X|). A negative gain gives an all-zero map.
 *
 * Needs an OpenCube of the capture (a render by this object is not needed if
 * the cube files exist). Returns 0 when the map was written. When the bin's
 * plane cannot be read whole and complete it returns the number of bytes that
 * could be, which is 0 when none could, and leaves `map` untouched: compare
 * with width x height x 8 to tell. So it is for a negative bin, a bin at or
 * past the opened cube's bins, an object not opened (or after a failed
 * OpenCube), a missing, truncated or unreadable cube file, and a cube whose
 * completion record says it is incomplete (the count is then the bytes of
 * the rows written so far) or that was replaced by a cube of other
 * dimensions since OpenCube (0). One exception to "untouched": when another
 * process truncates a cube file while this very call reads from it, part of
 * `map` may already hold the new map (the result is still the short count).
 * Negative: the FRFCAM_MAP_* codes.
 */
FRFCAM_API int ReadFRFMap(FrfMapCalcs* calcs, int bin, float gain, unsigned char* map);

/*
 * Deletes every regular file whose name ends in exactly ".fft" (case
 * sensitive) in `folder` (UTF-8) and all folders below it, whichever capture
 * it belongs to: cube files and their completion records. Division files,
 * ".cap" files and headers stay, and so do FIFOs, devices and symbolic links
 * (no link is followed). A missing or
 * unreadable folder, or a file that cannot be removed, is skipped quietly.
 * The object is not used and may be NULL.
 */
FRFCAM_API void DeleteCube(FrfMapCalcs* calcs, const char* folder);

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
/* No longer returned: orders the lines cannot determine are run and get no
 * poles (see ComputeStability). The code stays reserved. */
#define FRFCAM_STABILITY_ORDER_TOO_HIGH (-6)
/* A frequency is NaN or infinite, or all frequencies are equal. */
#define FRFCAM_STABILITY_BAD_FREQUENCIES (-7)
/* A value of frfMatrix is NaN or infinite (frf may hold such values). */
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
 *                       frfMatrix). Lines where it is NaN or infinite take
 *                       no part in the residue fit, nor in the fits of
 *                       estimatorFlag1 and estimatorFlag2 below; the chart,
 *                       the selection and frfm (at every line) are written
 *                       as usual.
 *   frfMatrix           numLines x numChannels complex values, column by
 *                       column: line i of channel j is the pair at complex
 *                       index i + j * numLines.
 *   numChannels         columns of frfMatrix, >= 1.
 *   frequencies         numLines angular frequencies in rad/s (2 pi f).
 *   numLines            spectral lines, >= 2.
 *   minOrder, maxOrder  order range, 1 <= minOrder < maxOrder.
 *   selectionTolerance  relative frequency difference below which two poles
 *                       count as the same mode when selecting (e.g. 0.01).
 *   minStableCount      orders (the pole's own included) in which a pole's
 *                       frequency must recur to be selected (e.g. 5).
 *   frequencyTolerance  relative frequency change up to which a pole counts
 *                       as stable against the order below (e.g. 0.01).
 *   dampingTolerance    relative damping change up to which a pole counts
 *                       as stable against the order below (e.g. 0.05).
 *   estimatorFlag1      non-zero: frfnum holds the highest order's fitted
 *                       model of frf at every line; 0: frfnum is empty.
 *   estimatorFlag2      non-zero: frf takes part in the pole estimation as
 *                       one more channel, and its non-finite lines then
 *                       take no part in it for any channel; 0: only
 *                       frfMatrix does.
 *
 * The arrays are only read, and not kept after the call returns. frfMatrix
 * is read in place, not copied: the memory the call adds grows with
 * numChannels x maxOrder, not with numChannels x numLines.
 *
 * Orders the lines cannot determine: with C channels (numChannels, plus 1
 * with estimatorFlag2) and D = 2 x (distinct frequencies strictly between
 * the lowest and the highest line) + (1 for each of those two ends), order
 * n has n + 1 numerator coefficients per channel and n denominator
 * coefficients, and is determined when C x (D - n - 1) >= n. For example 50
 * evenly spaced lines give D = 98, so 16 channels determine orders up to 91
 * and 3 channels up to 72. Higher orders (and orders whose equations are
 * numerically singular) get no poles: their orderInfo entries are present,
 * with empty class lists. Lines of frf that take no part (above) do not
 * count towards D.
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
 * book." and a line end go to stderr and the call still returns 0. Only a
 * regular file (new or existing) takes the record: a path naming a FIFO, a
 * device or a directory counts as unwritable, without waiting on it or
 * writing to it. A write that fails part way leaves the file empty. Every call
 * that passes the checks prints "took " N "ms to run." and a line end to
 * stdout (for example "took 27ms to run."), N being the whole milliseconds
 * from the start of the estimation to the closing of the file.
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
