#include "TableRepositoryImport.h"

#include "client/JsonText.h"
#include "client/ServiceRequest.h"
#include "values/ValueImport.h"

#include <algorithm>
#include <cwchar>
#include <memory>
#include <utility>

namespace {

// The size the host's CopyValue is written against, terminating NUL included.
constexpr std::size_t kCopyBufferLength = 10000;

// Every value travels as a JSON string, whatever type the column has on the host: the host
// renders it as text and the service parses it. Each value is written out as soon as it is read,
// so the chunk exists once, as the text of its body.
JsonText ReadDistinctValues(CDistinctValues& values, long first, long last, int copyMode) {
    // Owned rather than malloc'ed so that an exception from the host's record does not leak it;
    // it is gone again before the request is sent.
    const std::unique_ptr<wchar_t[]> buffer(new wchar_t[kCopyBufferLength]);
    JsonText body;
    body.utf8 += '[';
    values.Prepare();
    bool firstValue = true;
    ForEachIndex(first, last, [&](int index) {
        if (!firstValue) {
            body.utf8 += ',';
        }
        firstValue = false;
        if (copyMode == 0) {
            const wchar_t* text = values.GetValue(index);
            AppendJsonString(body.utf8, text);
            return;
        }
        // Cleared before every call: a CopyValue that writes nothing stands for the empty text,
        // not for whatever the previous value left behind.
        buffer[0] = L'\0';
        values.CopyValue(index, buffer.get());
        const wchar_t* end = std::find(buffer.get(), buffer.get() + kCopyBufferLength, L'\0');
        AppendJsonString(body.utf8, buffer.get(), static_cast<std::size_t>(end - buffer.get()));
    });
    body.utf8 += ']';
    return body;
}

} // namespace

// The chunk carries no indices: the service appends it to what the phase has received so far.
int CTableRepositoryImport::ImportDistinctValuesChunk(CString table, CString attribute, long first,
                                                      long last, CDistinctValues* values,
                                                      int copyMode) {
    const ServiceAddress address =
        AttributeAddress(serverBaseUri, table, U("DistinctValues"), attribute);
    JsonText body = ReadDistinctValues(*values, first, last, copyMode);
    return AcceptOnly(PostToService(*authenticationSettings, address.ToString(), std::move(body)),
                      web::http::status_codes::OK);
}
