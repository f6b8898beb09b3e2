// Variant text conversions in both directions, against the C library calls
// that define them: strtol, strtoul, strtoll, strtoull and atof (base 0, no end
// pointer) from text, and the printf format of each type to text.

#include "../VariantTextOracle.h"
#include "FuzzInput.h"

namespace internal = ostrelled::internal;

namespace {

void checkParsing(const std::string& text) {
  for (int tag = TVT_I1; tag <= TVT_BOOL; ++tag) {
    const std::string why = oracle::parseMismatch(text, static_cast<TVARTYPE>(tag));
    fuzz::check(why.empty(), "parse", why);
  }
}

void checkFormatting(fuzz::Input& in) {
  // Every scalar tag; the text tag is no scalar and checks nothing.
  const auto tag = static_cast<TVARTYPE>(TVT_I1 + in.byte() % (TVT_BOOL - TVT_I1 + 1));
  internal::visitScalar(tag, [&](auto source) {
    const std::string why = oracle::printMismatch(in.take<typename decltype(source)::type>());
    fuzz::check(why.empty(), "format", why);
    return true;
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  if (in.byte() & 1)
    checkFormatting(in);
  else
    checkParsing(in.rest());
  return 0;
}
