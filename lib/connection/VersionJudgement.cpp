#include "connection/VersionJudgement.h"

namespace {

// A one-character substring read with _wtoi: a non-digit or a position past the end gives 0.
int DigitAt(const CString& text, int index) { return _wtoi(text.Mid(index, 1)); }

struct DottedVersion {
    int major = 0;
    int minor = 0;
    int patch = 0;
};

struct EmbeddedVersion {
    int first = 0;
    int second = 0;
};

} // namespace

bool IsServedThroughProxy(const CString& version) {
    DottedVersion dotted;
    EmbeddedVersion embedded;
    if (!version.IsEmpty()) {
        embedded = {DigitAt(version, 14), DigitAt(version, 16)};
        dotted = {DigitAt(version, 0), DigitAt(version, 2), DigitAt(version, 4)};
    }
    return dotted.major >= 1 && dotted.minor >= 0 && embedded.first >= 2 && embedded.second >= 1;
}
