// The text writer against serialize() on arbitrary input: strings of any code units, integer
// arrays, and an attribute document whose texts come from the input. Any difference in bytes, or
// in whether and how they fail, aborts.
#include "client/JsonText.h"
#include "client/TextConversion.h"
#include "definitions/AttributeDefinitionsJson.h"

#include <cpprest/json.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

std::string Outcome(const std::function<std::string()>& produce) {
    try {
        return produce();
    } catch (const std::exception& e) {
        return std::string("failure: ") + e.what();
    }
}

void Same(const std::string& writer, const std::string& value) {
    if (writer != value) {
        std::abort();
    }
}

// Three input bytes per code unit, so every value up to 0xFFFFFF can appear: surrogates, units
// beyond Unicode, and the control characters.
std::wstring WideText(const std::uint8_t* data, std::size_t size) {
    std::wstring text;
    for (std::size_t i = 0; i + 3 <= size; i += 3) {
        text.push_back(static_cast<wchar_t>(data[i] | data[i + 1] << 8 | data[i + 2] << 16));
    }
    return text;
}

std::string Utf8Of(const web::json::value& value) {
    return utility::conversions::to_utf8string(value.serialize());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::wstring text = WideText(data, size);
    Same(Outcome([&] {
             std::string out;
             AppendJsonString(out, text.data(), text.size());
             return out;
         }),
         Outcome([&] { return Utf8Of(web::json::value::string(ToStringT(text))); }));
    // Up to the NUL: the same as by length for the text before it.
    const std::wstring beforeNul = text.substr(0, text.find(L'\0'));
    Same(Outcome([&] {
             std::string out;
             AppendJsonString(out, text.c_str());
             return out;
         }),
         Outcome([&] {
             std::string out;
             AppendJsonString(out, beforeNul.data(), beforeNul.size());
             return out;
         }));

    std::vector<std::int32_t> numbers(size / 4);
    if (!numbers.empty()) {
        std::memcpy(numbers.data(), data, numbers.size() * 4);
    }
    std::vector<web::json::value> elements;
    for (const std::int32_t n : numbers) {
        elements.push_back(web::json::value::number(n));
    }
    const std::unique_ptr<char[]> room(new char[JsonIntArrayCapacity(numbers.size())]);
    char* const begin = room.get();
    Same(std::string(begin, WriteJsonIntArray(begin, numbers.data(), numbers.size())),
         Utf8Of(web::json::value::array(elements)));

    // One attribute with a value range and a case, its texts cut from the input.
    const CString whole(text.data(), static_cast<int>(text.size()));
    const int third = whole.GetLength() / 3;
    DesktopValueRangeDTO range;
    range.StringThreshold = whole.Mid(0, third);
    range.ValueSet.AddTail(whole.Mid(third, third));
    range.Operator = numbers.empty() ? 0 : numbers.front();
    DesktopCaseDTO item;
    item.CaseName = whole.Mid(2 * third);
    DesktopAttributeDTO attribute;
    attribute.AttributeName = whole;
    attribute.Format = whole.Mid(third);
    attribute.IsGroup = numbers.size() > 1 ? numbers[1] : 0;
    attribute.ValueRanges.AddTail(&range);
    attribute.Cases.AddTail(&item);
    CList<DesktopAttributeDTO*> attributes;
    attributes.AddTail(&attribute);
    Same(Outcome([&] { return WriteAttributeDefinitionsJson(&attributes).utf8; }),
         Outcome([&] { return Utf8Of(BuildAttributeDefinitionsJson(&attributes)); }));
    return 0;
}
