// Exports that create, name and destroy the FrfMapCalcs object.
#include "api/guard.h"
#include "api/handle.h"
#include "platform/utf.h"

using frfcam::api::Guard;
using frfcam::api::GuardVoid;

namespace {
std::string CopyOrEmpty(const char* s) { return s != nullptr ? std::string(s) : std::string(); }
}  // namespace

extern "C" {

FRFCAM_API FrfMapCalcs* CreateFrfMapCalcs(const char* name) {
  return Guard([&]() -> FrfMapCalcs* { return new FrfMapCalcs(CopyOrEmpty(name)); },
               static_cast<FrfMapCalcs*>(nullptr), static_cast<FrfMapCalcs*>(nullptr));
}

FRFCAM_API void DeleteFrfMapCalcs(FrfMapCalcs* calcs) { delete calcs; }

FRFCAM_API frfcam::platform::HostString GetFrfMapCalcsName(FrfMapCalcs* calcs) {
  using frfcam::platform::HostString;
  if (calcs == nullptr) return nullptr;
  return Guard([&] { return frfcam::platform::NewHostString(calcs->calcs.name()); },
               static_cast<HostString>(nullptr), static_cast<HostString>(nullptr));
}

FRFCAM_API void SetFrfMapCalcsName(FrfMapCalcs* calcs, const char* name) {
  if (calcs == nullptr) return;
  GuardVoid([&] { calcs->calcs.set_name(CopyOrEmpty(name)); });
}

}  // extern "C"
