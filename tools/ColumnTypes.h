// What the values of a column look like, decided from the data alone.
#pragma once

#include <string_view>

namespace lxrepo {

// The codes go into the attribute definition's "Type"; README.md lists them with their Format.
enum class ColumnType { Text = 0, Integer = 1, Decimal = 2, Date = 3 };

// The narrowest type of one non-empty value: an integer is an optional minus and digits without
// a leading zero (so codes such as 00123 stay text), a decimal has digits on both sides of one
// point, a date is a calendar date written YYYY-MM-DD.
ColumnType TypeOfValue(std::string_view value);

// Tracks a column's type as its values go by; empty cells do not count. A column with no value
// at all is text.
class ColumnTypeTracker {
public:
    void See(std::string_view value);
    ColumnType Type() const { return seen_ ? type_ : ColumnType::Text; }

private:
    bool seen_ = false;
    ColumnType type_ = ColumnType::Text;
};

// The attribute definition's "Format" for a type.
const char* FormatOf(ColumnType type);

} // namespace lxrepo
