#include "TableRepositoryImport.h"

#include "client/ServiceRequest.h"
#include "client/TextConversion.h"
#include "values/ValueImport.h"

#include <algorithm>
#include <cwchar>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

// The size the host's CopyValue is written against, terminating NUL included.
constexpr std::size_t kCopyBufferLength = 10000;

web::json::value TextValue(const wchar_t* text, std::size_t length) {
    return web::json::value::string(ToStringT(std::wstring(text, length)));
}

// Every value travels as a JSON string, whatever type the column has on the host: the host
// renders it as text and the service parses it.
web::json::value ReadDistinctValues(CDistinctValues& values, long first, long last, int copyMode) {
    // Owned rather than malloc'ed so that an exception from the host's record does not leak it;
    // it is gone again before the request is sent.
    const std::unique_ptr<wchar_t[]> buffer(new wchar_t[kCopyBufferLength]);
    std::vector<web::json::value> texts;
    texts.reserve(IndexCount(first, last));
    values.Prepare();
    ForEachIndex(first, last, [&](int index) {
        if (copyMode == 0) {
            const wchar_t* text = values.GetValue(index);
            texts.push_back(TextValue(text, std::wcslen(text)));
            return;
        }
        // Cleared before every call: a CopyValue that writes nothing stands for the empty text,
        // not for whatever the previous value left behind.
        buffer[0] = L'\0';
        values.CopyValue(index, buffer.get());
        const wchar_t* end = std::find(buffer.get(), buffer.get() + kCopyBufferLength, L'\0');
        texts.push_back(TextValue(buffer.get(), static_cast<std::size_t>(end - buffer.get())));
    });
    return web::json::value::array(std::move(texts));
}

} // namespace

// The chunk carries no indices: the service appends it to what the phase has received so far.
int CTableRepositoryImport::ImportDistinctValuesChunk(CString table, CString attribute, long first,
                                                      long last, CDistinctValues* values,
                                                      int copyMode) {
    const ServiceAddress address =
        AttributeAddress(serverBaseUri, table, U("DistinctValues"), attribute);
    const web::json::value body = ReadDistinctValues(*values, first, last, copyMode);
    return AcceptOnly(PostToService(*authenticationSettings, address.ToString(), body),
                      web::http::status_codes::OK);
}
