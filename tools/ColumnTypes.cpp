#include "ColumnTypes.h"

#include <cstddef>

namespace lxrepo {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool AllDigits(std::string_view text) {
    for (char c : text) {
        if (!IsDigit(c)) {
            return false;
        }
    }
    return !text.empty();
}

// Beyond 18 digits a value no longer fits a 64-bit integer on the service's side.
constexpr std::size_t kMaxIntegerDigits = 18;

bool IsInteger(std::string_view text) {
    if (!text.empty() && text.front() == '-') {
        text.remove_prefix(1);
    }
    return AllDigits(text) && text.size() <= kMaxIntegerDigits &&
           (text.size() == 1 || text.front() != '0');
}

bool IsDecimal(std::string_view text) {
    const std::size_t point = text.find('.');
    if (point == std::string_view::npos) {
        return false;
    }
    const std::string_view whole = text.substr(0, point);
    return IsInteger(whole) && AllDigits(text.substr(point + 1));
}

int Number(std::string_view digits) {
    int n = 0;
    for (char c : digits) {
        n = n * 10 + (c - '0');
    }
    return n;
}

bool IsIsoDate(std::string_view text) {
    if (text.size() != 10 || text[4] != '-' || text[7] != '-' || !AllDigits(text.substr(0, 4)) ||
        !AllDigits(text.substr(5, 2)) || !AllDigits(text.substr(8, 2))) {
        return false;
    }
    const int year = Number(text.substr(0, 4));
    const int month = Number(text.substr(5, 2));
    const int day = Number(text.substr(8, 2));
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1) {
        return false;
    }
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return day <= kDays[month - 1] + (month == 2 && leap ? 1 : 0);
}

} // namespace

ColumnType TypeOfValue(std::string_view value) {
    if (IsInteger(value)) {
        return ColumnType::Integer;
    }
    if (IsDecimal(value)) {
        return ColumnType::Decimal;
    }
    return IsIsoDate(value) ? ColumnType::Date : ColumnType::Text;
}

void ColumnTypeTracker::See(std::string_view value) {
    if (value.empty() || (seen_ && type_ == ColumnType::Text)) {
        return;
    }
    const ColumnType type = TypeOfValue(value);
    if (!seen_ || type == type_) {
        type_ = type;
    } else if ((type_ == ColumnType::Integer && type == ColumnType::Decimal) ||
               (type_ == ColumnType::Decimal && type == ColumnType::Integer)) {
        // Whole numbers among decimals are decimals too.
        type_ = ColumnType::Decimal;
    } else {
        type_ = ColumnType::Text;
    }
    seen_ = true;
}

const char* FormatOf(ColumnType type) {
    switch (type) {
    case ColumnType::Integer:
        return "0";
    case ColumnType::Decimal:
        return "0.0";
    case ColumnType::Date:
        return "yyyy-MM-dd";
    case ColumnType::Text:
        break;
    }
    return "";
}

} // namespace lxrepo
