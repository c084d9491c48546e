/*
 * A host application in plain C that uses frfcam only through its public
 * header and the library (the import library frfcam.lib on Windows).
 *
 *   host_run HEADER REFERENCE OUTDIR
 *   host_run OUTDIR
 *
 * Checks the object's name round trip, opens and renders the capture HEADER
 * (its cube files land beside the capture), sets the reference read from the
 * text file REFERENCE (one value per frame), writes the FRF maps of every
 * bin to OUTDIR/maps.bin (bins x width x height bytes, bin by bin), and runs
 * ComputeStability on a known three-mode system into OUTDIR/record.pb.
 * With OUTDIR alone it does only the name round trip and the record: enough
 * to show that a program linked some other way loads and calls the library.
 *
 * The same program runs on Linux and, cross-built, under Wine; the
 * comparison of their outputs checks that both libraries compute the same.
 * Exits 0 on success; otherwise prints what failed and exits with 1.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "frfcam/frfcam.h"

#if defined(_WIN32)
#include <oleauto.h>
#define SEP "\\"
#else
#define SEP "/"
#endif

static int failures = 0;

static void check(int ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "host_run: %s\n", what);
    ++failures;
  }
}

/* The name comes back as UTF-16; the host owns it and frees it as the header
 * says for this platform. */
#if defined(_WIN32)
typedef BSTR Name;
static size_t name_length(BSTR name) { return SysStringLen(name); }
static void free_name(BSTR name) { SysFreeString(name); }
#else
typedef char16_t* Name;
static size_t name_length(const char16_t* name) {
  size_t n = 0;
  while (name[n] != 0) ++n;
  return n;
}
static void free_name(char16_t* name) { free(name); }
#endif

static void check_name(FrfMapCalcs* calcs, const char* expected) {
  Name name = GetFrfMapCalcsName(calcs);
  check(name != NULL, "GetFrfMapCalcsName gave NULL");
  if (name == NULL) return;
  size_t n = name_length(name);
  check(n == strlen(expected), "name length differs");
  for (size_t i = 0; i < n && i < strlen(expected); ++i) {
    check(name[i] == (unsigned char)expected[i], "name differs");
  }
  free_name(name);
}

static void progress(int percent) { (void)percent; }

static float* read_reference(const char* path, int* length) {
  FILE* f = fopen(path, "r");
  if (f == NULL) return NULL;
  double x;
  int n = 0;
  while (fscanf(f, "%lf", &x) == 1) ++n;
  rewind(f);
  float* v = malloc(sizeof(float) * (size_t)(n > 0 ? n : 1));
  for (int i = 0; v != NULL && i < n && fscanf(f, "%lf", &x) == 1; ++i) v[i] = (float)x;
  fclose(f);
  *length = n;
  return v;
}

/* A new object whose name has made the round trip, or NULL. */
static FrfMapCalcs* create_named(void) {
  FrfMapCalcs* calcs = CreateFrfMapCalcs("first");
  check(calcs != NULL, "CreateFrfMapCalcs gave NULL");
  if (calcs == NULL) return NULL;
  check_name(calcs, "first");
  SetFrfMapCalcsName(calcs, "host application");
  check_name(calcs, "host application");
  SetFrfMapCalcsName(calcs, "");
  check_name(calcs, "");
  return calcs;
}

static int render_and_map(const char* header, const char* reference, const char* outdir) {
  FrfMapCalcs* calcs = create_named();
  if (calcs == NULL) return 1;

  check(OpenCube(calcs, header) == FRFCAM_OPEN_OK, "OpenCube failed");
  unsigned w = 0, h = 0, bins = 0;
  check(GetCubeDims(calcs, &w, &h, &bins) == bins && bins > 0, "GetCubeDims");
  check(RenderCube(calcs, progress) == FRFCAM_RENDER_OK, "RenderCube failed");

  int length = 0;
  float* signal = read_reference(reference, &length);
  check(signal != NULL && length > 0, "cannot read the reference");
  if (signal != NULL) SetReference(calcs, signal, length);
  free(signal);

  char path[4096];
  snprintf(path, sizeof path, "%s" SEP "maps.bin", outdir);
  FILE* out = fopen(path, "wb");
  check(out != NULL, "cannot write maps.bin");
  unsigned char* map = malloc((size_t)w * h);
  for (unsigned b = 0; out != NULL && map != NULL && b < bins; ++b) {
    check(ReadFRFMap(calcs, (int)b, 4.0f, map) == 0, "ReadFRFMap failed");
    check(fwrite(map, 1, (size_t)w * h, out) == (size_t)w * h, "short write of maps.bin");
  }
  free(map);
  if (out != NULL) check(fclose(out) == 0, "cannot close maps.bin");
  DeleteFrfMapCalcs(calcs);
  DeleteFrfMapCalcs(NULL);
  return 0;
}

/* Three lightly damped modes seen by three sensors, evaluated with plain
 * arithmetic (no library functions) so that both platforms pass
 * bit-identical inputs. */
static int stability(const char* outdir) {
  enum { kLines = 400, kChannels = 3, kModes = 3 };
  const double fn[kModes] = {31.0, 57.5, 83.25};
  const double zeta[kModes] = {0.012, 0.02, 0.008};
  const double gain[kChannels][kModes] = {{1.0, 0.6, 0.3}, {0.5, -0.9, 0.7}, {0.2, 0.4, -1.1}};
  const double two_pi = 6.283185307179586;
  static double omega[kLines], matrix[2 * kLines * kChannels];
  for (int i = 0; i < kLines; ++i) omega[i] = two_pi * (10.0 + 100.0 * i / (kLines - 1));
  for (int c = 0; c < kChannels; ++c) {
    for (int i = 0; i < kLines; ++i) {
      double re = 0, im = 0;
      for (int m = 0; m < kModes; ++m) {
        /* A / (wn^2 - w^2 + 2 i zeta wn w) */
        const double wn = two_pi * fn[m], w = omega[i];
        const double a = wn * wn - w * w, b = 2.0 * zeta[m] * wn * w, d = a * a + b * b;
        const double scale = gain[c][m] * wn * wn;
        re += scale * a / d;
        im -= scale * b / d;
      }
      matrix[2 * (i + c * kLines)] = re;
      matrix[2 * (i + c * kLines) + 1] = im;
    }
  }
  char path[4096];
  snprintf(path, sizeof path, "%s" SEP "record.pb", outdir);
  const int r = ComputeStability(path, matrix, matrix, kChannels, omega, kLines, 4, 24, 0.01, 5,
                                 0.01, 0.05, 0, 0);
  check(r == FRFCAM_STABILITY_OK, "ComputeStability failed");
  return 0;
}

int main(int argc, char** argv) {
  if (argc == 2) {
    DeleteFrfMapCalcs(create_named());
    stability(argv[1]);
  } else if (argc == 4) {
    render_and_map(argv[1], argv[2], argv[3]);
    stability(argv[3]);
  } else {
    fprintf(stderr, "usage: host_run HEADER REFERENCE OUTDIR | host_run OUTDIR\n");
    return 2;
  }
  return failures == 0 ? 0 : 1;
}
