// The connection test's judgement of the proxy's version text, for any text at all. The text is
// read by character position: an ASCII digit at 0, 14 and 16 (major, embedded first and second)
// decides; anything else there, or nothing, counts as 0.
#include "FuzzInput.h"
#include "connection/VersionJudgement.h"

namespace {

int DigitAt(const CString& text, int index) {
    const wchar_t ch = index < text.GetLength() ? text[index] : L'\0';
    return ch >= L'0' && ch <= L'9' ? ch - L'0' : 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    // Raw bytes as code units too, so long texts reach positions 14 and 16 cheaply.
    CString version = input.Text();
    while (!input.Empty()) {
        version += static_cast<wchar_t>(input.Byte());
    }
    const bool expected =
        DigitAt(version, 0) >= 1 && DigitAt(version, 14) >= 2 && DigitAt(version, 16) >= 1;
    Check(IsServedThroughProxy(version) == expected);
    return 0;
}
