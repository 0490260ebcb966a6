// Property lists in both forms. What was read and written as XML must read and write the same from then on.
#include "plist/xml_property_list.h"
#include "require.h"

using namespace tarnwick;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input = textOf(data, size);
    const auto value = parsePropertyList(input);
    require(value.has_value() || !parsePropertyListText(input));
    if (!value) return 0;
    const std::string written = writeXmlPropertyList(*value);
    const auto again = parseXmlPropertyList(written);
    require(again && writeXmlPropertyList(*again) == written);
    return 0;
}
