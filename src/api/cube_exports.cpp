// Exports that open, render, read and delete cubes.
#include "api/guard.h"
#include "api/handle.h"
#include "frfmap/cube_files.h"

using frfcam::api::Guard;
using frfcam::api::GuardVoid;
namespace fm = frfcam::frfmap;

extern "C" {

FRFCAM_API int OpenCube(FrfMapCalcs* calcs, const char* capturePath) {
  if (calcs == nullptr || capturePath == nullptr) return fm::kOpenBadCapture;
  return Guard([&] { return calcs->calcs.OpenCube(capturePath); }, int{fm::kOpenNoMemory},
               int{fm::kOpenBadCapture});
}

FRFCAM_API unsigned GetCubeDims(FrfMapCalcs* calcs, unsigned* width, unsigned* height,
                                unsigned* bins) {
  if (calcs == nullptr) {
    if (width != nullptr) *width = 0;
    if (height != nullptr) *height = 0;
    if (bins != nullptr) *bins = 0;
    return 0;
  }
  return calcs->calcs.GetCubeDims(width, height, bins);
}

FRFCAM_API void CancelRenderCube(FrfMapCalcs* calcs) {
  if (calcs != nullptr) calcs->calcs.CancelRender();
}

FRFCAM_API int RenderCube(FrfMapCalcs* calcs, ProgressCallback progress) {
  if (calcs == nullptr) return fm::kRenderNoMemory;
  return Guard(
      [&] {
        return calcs->calcs.RenderCube([progress](int percent) {
          if (progress != nullptr) progress(percent);
        });
      },
      int{fm::kRenderNoMemory}, int{fm::kRenderNoMemory});
}

FRFCAM_API void SetReference(FrfMapCalcs* calcs, const float* signal, int length) {
  if (calcs == nullptr) return;
  GuardVoid([&] { calcs->calcs.SetReference(signal, length); });
}

FRFCAM_API int ReadFRFMap(FrfMapCalcs* calcs, int bin, float gain, unsigned char* map) {
  if (calcs == nullptr || map == nullptr) return fm::kReadNullMap;
  return Guard([&] { return calcs->calcs.ReadFRFMap(bin, gain, map); }, int{fm::kReadNoMemory},
               int{0});
}

FRFCAM_API void DeleteCube(FrfMapCalcs* /*unused*/, const char* folder) {
  if (folder == nullptr) return;
  GuardVoid([&] { fm::DeleteCubeFiles(folder); });
}

}  // extern "C"
