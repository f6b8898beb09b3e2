// Converts a text and a double to every value type and prints what each becomes.
#include <cstdio>
#include <string>

#include <ostrelled/Variant.h>

int main() {
  const CVariant samples[] = {CVariant("0x1F"), CVariant(-2.75)};
  std::printf("%-20s %-22s %s\n", "to", "from text \"0x1F\"", "from double -2.75");
  for (int tag = TVT_NULL; tag <= TVT_BOOL; ++tag) {
    std::string name = "(null)";
    CVariant::resolveDataType(static_cast<TVARTYPE>(tag), name);
    std::printf("%-20s", name.c_str());
    for (const CVariant& sample : samples) {
      const bool last = &sample == &samples[1];
      CVariant converted(sample);
      std::string text = "fails";
      if (converted.changeType(static_cast<TVARTYPE>(tag))) {
        converted.getValue(text);
        if (tag == TVT_BSTR) text = "\"" + text + "\"";
      }
      std::printf(last ? " %s" : " %-22s", text.c_str());
    }
    std::printf("\n");
  }
  return 0;
}
