#include "platform/foundation/footprint.h"

#include <gtest/gtest.h>
#include <malloc.h>

namespace kelvane::foundation {
namespace {

/// What the heap gave out while `make` ran, with its result still there.
template <class Make>
std::size_t allocatedFor(Make make) {
  const std::size_t before = ::mallinfo2().uordblks + ::mallinfo2().hblkhd;
  const Value value = make();
  return ::mallinfo2().uordblks + ::mallinfo2().hblkhd - before;
}

/// A hundred thousand of what `element` gives.
template <class Element>
Value arrayOf(Element element) {
  Array array;
  for (int i = 0; i < 100'000; ++i) array.append(element());
  return array;
}

TEST(Footprint, OfANumberIsTheValueAlone) { EXPECT_EQ(footprint(Value(5)), sizeof(Value)); }

TEST(Footprint, OfTextAndDataGrowsWithTheirBytes) {
  EXPECT_EQ(footprint(std::string(1000, 'x')), footprint("") + 1000);
  EXPECT_EQ(footprint(Data(Data::Bytes(1000))), footprint(Data()) + 1000);
}

TEST(Footprint, OfADictionaryCountsItsKeys) {
  EXPECT_EQ(footprint(Dictionary{{std::string(1000, 'k'), 1}}), footprint(Dictionary{{"", 1}}) + 1000);
}

TEST(Footprint, IsComparedWithoutLookingAtAllOfALargeValue) {
  const Value value = arrayOf([] { return Value(1); });
  EXPECT_FALSE(footprintExceeds(value, footprint(value)));
  EXPECT_TRUE(footprintExceeds(value, footprint(value) - 1));
  EXPECT_TRUE(footprintExceeds(Dictionary{{"k", value}}, footprint(value)));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // whose heap tells nothing
TEST(Footprint, IsAtLeastHalfOfWhatManyValuesReallyTakeAndAtMostTwiceThat) {
  const auto expectNear = [](auto element, const char* what) {
    const auto make = [&] { return arrayOf(element); };
    const double real = static_cast<double>(allocatedFor(make));
    const double estimate = static_cast<double>(footprint(make()));
    EXPECT_GT(estimate, real / 2) << what;
    EXPECT_LT(estimate, real * 2) << what;
  };
  expectNear([] { return Value(1); }, "numbers");
  expectNear([] { return Value(""); }, "empty texts");
  expectNear([] { return Value(std::string(100, 'x')); }, "texts");
  expectNear([] { return Value(Data(Data::Bytes(1))); }, "data");
  expectNear([] { return Value(Array{1}); }, "arrays");
  expectNear([] { return Value(Dictionary{{"k", 1}}); }, "dictionaries");
}
#endif

}  // namespace
}  // namespace kelvane::foundation
