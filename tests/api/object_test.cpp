#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "frfcam/frfcam.h"
#include "support/test_support.h"
#if defined(_WIN32)
#include <oleauto.h>
#endif

namespace {

// The name as UTF-16, freed as the header says for the platform (a BSTR on
// Windows, with its own tests in tests/windows).
std::u16string TakeName(FrfMapCalcs* calcs) {
  auto* raw = GetFrfMapCalcsName(calcs);
  EXPECT_NE(raw, nullptr);
  if (raw == nullptr) return {};
#if defined(_WIN32)
  std::u16string s(reinterpret_cast<const char16_t*>(raw), SysStringLen(raw));
  SysFreeString(raw);
#else
  std::u16string s(raw);
  std::free(raw);
#endif
  return s;
}

// Invalid UTF-8 (a lone continuation byte, a truncated sequence, an overlong
// slash and an encoded surrogate) gives one U+FFFD per offending byte.
TEST(ObjectExports, NameRoundTripsAsUtf16) {
  FRFCAM_SKIP_ON_WINDOWS("names there are in the ANSI code page, not UTF-8");
  FrfMapCalcs* calcs = CreateFrfMapCalcs("bridge \xC3\xA9\xE2\x82\xAC\xF0\x9F\x8E\xB5");
  ASSERT_NE(calcs, nullptr);
  EXPECT_EQ(TakeName(calcs), u"bridge \u00E9\u20AC\U0001F3B5");
  SetFrfMapCalcsName(calcs, "");
  EXPECT_EQ(TakeName(calcs), u"");
  SetFrfMapCalcsName(calcs,
                     "a\x80"
                     "b\xE2\x82"
                     "c\xC0\xAF"
                     "d\xED\xA0\x80");
  EXPECT_EQ(TakeName(calcs), u"a\uFFFDb\uFFFD\uFFFDc\uFFFD\uFFFDd\uFFFD\uFFFD\uFFFD");
  DeleteFrfMapCalcs(calcs);
}

TEST(ObjectExports, NullArgumentsAreHarmless) {
  DeleteFrfMapCalcs(nullptr);
  EXPECT_EQ(GetFrfMapCalcsName(nullptr), nullptr);
  SetFrfMapCalcsName(nullptr, "x");
  FrfMapCalcs* calcs = CreateFrfMapCalcs(nullptr);
  EXPECT_EQ(TakeName(calcs), u"");
  SetFrfMapCalcsName(calcs, "kept");
  SetFrfMapCalcsName(calcs, nullptr);
  EXPECT_EQ(TakeName(calcs), u"");
  DeleteFrfMapCalcs(calcs);
}

}  // namespace
