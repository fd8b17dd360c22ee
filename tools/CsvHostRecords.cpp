#include "CsvHostRecords.h"

#include <algorithm>
#include <stdexcept>

namespace lxrepo {

namespace {

// The size of the buffer the library hands to CopyValue, terminating NUL included.
constexpr int kCopyBufferLength = 10000;

void AppendUtf8(std::string& out, unsigned long cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

} // namespace

CString ToCString(std::string_view utf8) {
    return CString(utf8.data(), static_cast<int>(utf8.size()));
}

std::string ToUtf8(const CString& text) {
    std::string out;
    const wchar_t* p = text.GetString();
    const wchar_t* end = p + text.GetLength();
    for (; p < end; ++p) {
        unsigned long cp = static_cast<unsigned long>(*p);
        // A 16-bit wchar_t carries code points above the BMP as surrogate pairs.
        if (cp >= 0xD800 && cp < 0xDC00 && p + 1 < end) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (static_cast<unsigned long>(p[1]) - 0xDC00);
            ++p;
        }
        AppendUtf8(out, cp);
    }
    return out;
}

LPCWSTR CsvDistinctValues::GetValue(int index) {
    chunk_.push_back(ToCString(values_.At(index)));
    return chunk_.back().GetString();
}

void CsvDistinctValues::CopyValue(int index, LPWSTR buffer) {
    const CString text = ToCString(values_.At(index));
    const int length = std::min(text.GetLength(), kCopyBufferLength - 1);
    std::copy(text.GetString(), text.GetString() + length, buffer);
    buffer[length] = L'\0';
}

void CsvValueIds::Hold(long first, const std::vector<int>& ids) {
    first_ = first;
    ids_ = &ids;
}

int CsvValueIds::GetValueId(int row) {
    if (ids_ == nullptr) {
        throw std::logic_error("value ids asked for before a chunk was read");
    }
    return ids_->at(static_cast<std::size_t>(row - first_));
}

CsvAttribute::CsvAttribute(const ColumnScan& column)
    : name_(ToCString(column.name)), type_(static_cast<int>(column.type.Type())),
      distinct_(column.values) {}

CsvTableRecords::CsvTableRecords(const TableScan& scan) {
    int position = 0;
    for (const ColumnScan& column : scan.columns) {
        attributes_.push_back(std::make_unique<CsvAttribute>(column));
        attributeList_.AddTail(attributes_.back().get());
        auto dto = std::make_unique<DesktopAttributeDTO>();
        dto->AttributeName = ToCString(column.name);
        dto->Position = position++;
        dto->Type = static_cast<int>(column.type.Type());
        dto->Format = FormatOf(column.type.Type());
        definitions_.AddTail(dto.get());
        dtos_.push_back(std::move(dto));
    }
}

CsvTableRecords::~CsvTableRecords() = default;

void CsvTableRecords::HoldChunk(long first, const std::vector<std::vector<int>>& ids) {
    for (std::size_t c = 0; c < attributes_.size(); ++c) {
        attributes_[c]->ValueIds().Hold(first, ids.at(c));
    }
}

} // namespace lxrepo
