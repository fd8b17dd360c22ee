// The text writer against serialize(): for every input, the same bytes or the same failure.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "client/JsonText.h"
#include "client/TextConversion.h"
#include "definitions/AttributeDefinitionsJson.h"

#include <cpprest/json.h>

#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

// What a JSON value gives for the same wide text, or the failure's message.
std::string ViaValue(const std::wstring& text) {
    try {
        return utility::conversions::to_utf8string(web::json::value::string(ToStringT(text)).serialize());
    } catch (const std::exception& e) {
        return std::string("failure: ") + e.what();
    }
}

std::string Outcome(const std::function<void(std::string&)>& write) {
    try {
        std::string out;
        write(out);
        return out;
    } catch (const std::exception& e) {
        return std::string("failure: ") + e.what();
    }
}

// Both ways in, by length and up to the NUL, must give the same; the latter only applies to text
// without a NUL of its own.
std::string ViaWriter(const std::wstring& text) {
    const std::string byLength =
        Outcome([&](std::string& out) { AppendJsonString(out, text.data(), text.size()); });
    if (text.find(L'\0') == std::wstring::npos) {
        const std::string toNul =
            Outcome([&](std::string& out) { AppendJsonString(out, text.c_str()); });
        if (toNul != byLength) {
            return "up to the NUL: " + toNul + " by length: " + byLength;
        }
    }
    return byLength;
}

// Code units chosen to hit every escape and every UTF-8 length, surrogates paired and alone,
// and units beyond Unicode.
wchar_t InterestingUnit(std::mt19937& random) {
    static const std::vector<std::uint32_t> kSpecial = {
        0x00, 0x01, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x1F, 0x20, '"', '\\', '/', 0x7F, 0x80,
        0xE9, 0x7FF, 0x800, 0xFFFD, 0xFFFF, 0x10000, 0x1F600, 0x10FFFF, 0x110000, 0xD800, 0xDBFF,
        0xDC00, 0xDFFF};
    switch (random() % 4) {
    case 0: return static_cast<wchar_t>(kSpecial[random() % kSpecial.size()]);
    case 1: return static_cast<wchar_t>(0x20 + random() % 0x5F);
    case 2: return static_cast<wchar_t>(random() % 0x10000);
    default: return static_cast<wchar_t>(random() % 0x110000);
    }
}

std::wstring RandomText(std::mt19937& random, std::size_t maxLength) {
    std::wstring text(random() % (maxLength + 1), L'a');
    for (wchar_t& unit : text) {
        unit = InterestingUnit(random);
    }
    return text;
}

TEST(JsonTextString, EveryCodeUnitAloneMatchesSerialize) {
    for (std::uint32_t unit = 0; unit < 0x11000; ++unit) {
        const std::wstring text(1, static_cast<wchar_t>(unit));
        ASSERT_EQ(ViaWriter(text), ViaValue(text)) << "unit " << unit;
    }
    for (const std::uint32_t unit : {0x10FFFFu, 0x110000u, 0x7FFFFFFFu}) {
        const std::wstring text(1, static_cast<wchar_t>(unit));
        EXPECT_EQ(ViaWriter(text), ViaValue(text)) << "unit " << unit;
    }
}

TEST(JsonTextString, GeneratedTextsMatchSerialize) {
    std::mt19937 random(20261123);
    for (int i = 0; i < 20000; ++i) {
        const std::wstring text = RandomText(random, 24);
        ASSERT_EQ(ViaWriter(text), ViaValue(text));
    }
}

// Plain ASCII up to some point, then one unit of any kind, then more: wherever the plain stretch
// ends, before, at or after the writer's short-text limit, the rest must come out the same.
TEST(JsonTextString, PlainStretchThenAnythingMatchesSerialize) {
    std::mt19937 random(11);
    for (int i = 0; i < 20000; ++i) {
        std::wstring text(random() % 300, L'a');
        for (wchar_t& unit : text) {
            unit = static_cast<wchar_t>(0x20 + random() % 0x5F);
        }
        if (!text.empty() && random() % 4 != 0) {
            text[random() % text.size()] = InterestingUnit(random);
        }
        ASSERT_EQ(ViaWriter(text), ViaValue(text));
    }
}

TEST(JsonTextString, SurrogatePairsAndTheirFailures) {
    for (const std::wstring& text :
         {std::wstring{wchar_t(0xD83D), wchar_t(0xDE00)}, std::wstring{L'x', wchar_t(0xD83D)},
          std::wstring{wchar_t(0xD83D), L'x'}, std::wstring{wchar_t(0xDE00), wchar_t(0xD83D)},
          std::wstring(100000, L'"')}) {
        EXPECT_EQ(ViaWriter(text), ViaValue(text));
    }
}

// A CString goes out up to its first NUL, as every other host text does.
TEST(JsonTextString, CStringStopsAtNul) {
    const CString text(L"ab\0cd", 5);
    std::string out;
    AppendJsonString(out, text);
    EXPECT_EQ(out, "\"ab\"");
}

std::string IntsViaValue(const std::vector<std::int32_t>& numbers) {
    std::vector<web::json::value> elements;
    for (const std::int32_t n : numbers) {
        elements.push_back(web::json::value::number(n));
    }
    return utility::conversions::to_utf8string(web::json::value::array(elements).serialize());
}

// Written into room of exactly the promised capacity; under AddressSanitizer a write past it fails.
std::string WrittenInts(const std::vector<std::int32_t>& numbers) {
    const std::unique_ptr<char[]> room(new char[JsonIntArrayCapacity(numbers.size())]);
    char* const begin = room.get();
    return std::string(begin, WriteJsonIntArray(begin, numbers.data(), numbers.size()));
}

TEST(JsonTextIntArray, MatchesSerialize) {
    std::mt19937 random(7);
    std::vector<std::vector<std::int32_t>> cases = {
        {}, {0}, {-1}, {-7}, {INT_MIN}, {INT_MAX}, {INT_MIN, -1, 0, 1, INT_MAX},
        {INT_MIN, INT_MIN, 7}, std::vector<std::int32_t>(1000, INT_MIN)};
    // Both sides of every power of ten, both signs: where the writer splits a number into groups.
    std::vector<std::int32_t> edges;
    for (std::int64_t power = 1; power <= INT_MAX; power *= 10) {
        for (const std::int64_t n : {power - 1, power, power + 1}) {
            edges.push_back(static_cast<std::int32_t>(n));
            edges.push_back(static_cast<std::int32_t>(-n));
        }
    }
    cases.push_back(edges);
    for (const std::int32_t n : edges) {
        cases.push_back({n});
    }
    std::vector<std::int32_t> large(300000);
    for (std::int32_t& n : large) {
        n = static_cast<std::int32_t>(random());
    }
    cases.push_back(large);
    for (const auto& numbers : cases) {
        EXPECT_EQ(WrittenInts(numbers), IntsViaValue(numbers));
    }
}

// Host records with every kind of member filled from the generator.
struct Document {
    CList<DesktopAttributeDTO*> attributes;
    std::vector<std::unique_ptr<DesktopAttributeDTO>> attributeStore;
    std::vector<std::unique_ptr<DesktopValueRangeDTO>> rangeStore;
    std::vector<std::unique_ptr<DesktopCaseDTO>> caseStore;
};

CString Text(std::mt19937& random) {
    const std::wstring text = RandomText(random, 6);
    return CString(text.data(), static_cast<int>(text.size()));
}

std::unique_ptr<Document> RandomDocument(std::mt19937& random, int attributes) {
    auto document = std::make_unique<Document>();
    const auto code = [&] { return static_cast<int>(random()); };
    const auto flag = [&] { return static_cast<BOOL>(random() % 3 == 0 ? 0 : code()); };
    for (int i = 0; i < attributes; ++i) {
        auto a = std::make_unique<DesktopAttributeDTO>();
        a->AttributeName = Text(random); a->Type = code(); a->Format = Text(random);
        a->LCID = code(); a->IsGroup = flag(); a->IsDrillDownGroup = flag(); a->IsSummary = flag();
        a->IsFormula = flag(); a->IsClassification = flag(); a->IsCaseDiscrimination = flag();
        a->IsLink = flag(); a->IsPermanentlyHidden = flag(); a->Level = code(); a->Id = Text(random);
        a->Parent = Text(random); a->Source = Text(random); a->SummaryPerAttribute = Text(random);
        a->ClassifiedAttribute = Text(random); a->UserDefinedOrder = flag(); a->EvalMode = code();
        a->Formula = Text(random); a->ReferencedAttributes = Text(random);
        a->ReferencedDrillDownGroup = Text(random); a->SummaryType = code();
        a->MissingValuesAsZero = flag(); a->MarginalValue = Text(random); a->Reverse = flag();
        a->IsExpanded = flag(); a->IsCoupled = flag(); a->IsFirstCoupledAttribute = flag();
        a->IsLastCoupledAttributeLeads = flag(); a->IsCoupledAttributeSortedReverse = flag();
        a->CoupledAttributes = Text(random);
        for (int r = static_cast<int>(random() % 3); r > 0; --r) {
            auto range = std::make_unique<DesktopValueRangeDTO>();
            range->Operator = code(); range->StringThreshold = Text(random);
            range->ClassName = Text(random); range->Unmodified = flag();
            for (int v = static_cast<int>(random() % 3); v > 0; --v) {
                range->ValueSet.AddTail(Text(random));
            }
            a->ValueRanges.AddTail(range.get());
            document->rangeStore.push_back(std::move(range));
        }
        for (int c = static_cast<int>(random() % 3); c > 0; --c) {
            auto item = std::make_unique<DesktopCaseDTO>();
            item->Condition = Text(random); item->CaseName = Text(random);
            a->Cases.AddTail(item.get());
            document->caseStore.push_back(std::move(item));
        }
        document->attributes.AddTail(a.get());
        document->attributeStore.push_back(std::move(a));
    }
    return document;
}

std::string DocumentViaValue(const CList<DesktopAttributeDTO*>* attributes) {
    try {
        return utility::conversions::to_utf8string(BuildAttributeDefinitionsJson(attributes).serialize());
    } catch (const std::exception& e) {
        return std::string("failure: ") + e.what();
    }
}

std::string DocumentViaWriter(const CList<DesktopAttributeDTO*>* attributes) {
    try {
        return WriteAttributeDefinitionsJson(attributes).utf8;
    } catch (const std::exception& e) {
        return std::string("failure: ") + e.what();
    }
}

// Texts here include unpaired surrogates, so some documents fail; the failure must be the one
// building the value raises, including which member's text it comes from.
TEST(JsonTextAttributeDocument, GeneratedDocumentsMatchSerialize) {
    std::mt19937 random(99);
    int failures = 0;
    for (int i = 0; i < 400; ++i) {
        const auto document = RandomDocument(random, static_cast<int>(random() % 4));
        const std::string expected = DocumentViaValue(&document->attributes);
        failures += expected.rfind("failure: ", 0) == 0 ? 1 : 0;
        ASSERT_EQ(DocumentViaWriter(&document->attributes), expected);
    }
    EXPECT_GT(failures, 0);
    EXPECT_LT(failures, 400);
}

} // namespace
