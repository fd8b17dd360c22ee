#include "TableRepositoryImport.h"

#include "client/PlainException.h"
#include "client/ServiceRequest.h"
#include "client/TextConversion.h"
#include "values/ValueImport.h"

#include <cstdint>
#include <utility>
#include <vector>

namespace {

// The ids of the chunk's rows per attribute, in list order and row order. GetValueIds is asked
// anew for every row: the host may hand out a different reader each time. All of it is read
// before the first request, so the host's records are done with before anything goes on the
// wire; as plain integers a chunk costs four bytes per id until its column is written out.
std::vector<std::vector<std::int32_t>> ReadValueIdColumns(CList<CRepoAttribute*>* attributes,
                                                          long first, long last) {
    std::vector<std::vector<std::int32_t>> columns(
        static_cast<std::size_t>(attributes->GetCount()));
    for (std::vector<std::int32_t>& column : columns) {
        column.reserve(IndexCount(first, last));
    }
    ForEachIndex(first, last, [&](int row) {
        auto column = columns.begin();
        ForEachAttribute(attributes, [&](CRepoAttribute* attribute) {
            (column++)->push_back(attribute->GetValueIds()->GetValueId(row));
        });
    });
    return columns;
}

utility::string_t AttributeValueIdsAddress(const utility::string_t& chunkAddress,
                                           const CString& attribute) {
    web::uri_builder builder{web::uri(chunkAddress)};
    builder.append_path(ToStringT(attribute), true);
    return builder.to_string();
}

// The task's body. Runs on a worker thread of cpprestsdk's scheduler while the host's thread
// waits, so the host's records are never touched by two threads at once.
int UploadValueIdColumns(CList<CRepoAttribute*>* attributes, long first, long last,
                         utility::string_t chunkAddress, const AuthenticationSettings& settings) {
    std::vector<std::vector<std::int32_t>> columns = ReadValueIdColumns(attributes, first, last);
    auto next = columns.begin();
    return UntilRefused(attributes, [&](CRepoAttribute* attribute) {
        // Each column becomes text only when its turn comes and is let go once sent, so the
        // chunk's footprint shrinks as it goes out.
        std::vector<std::int32_t> column = std::move(*next++);
        JsonText body = JsonIntArray(column.data(), column.size());
        column = std::vector<std::int32_t>();
        const utility::string_t address = AttributeValueIdsAddress(chunkAddress, attribute->GetName());
        return AcceptOnly(PostToService(settings, address, std::move(body)),
                          web::http::status_codes::OK);
    });
}

} // namespace

// Deliberately flattens every standard exception of the upload (transport, the host's records, a
// cancelled task) to a plain std::exception with the same message; a malformed service address
// is raised before that and keeps its type.
int CTableRepositoryImport::ImportValueIdsChunk(CString table, long first, long last,
                                                CList<CRepoAttribute*>* attributes,
                                                int /*reserved*/) {
    ServiceAddress chunkAddress(serverBaseUri, U("/Import/Tables"));
    chunkAddress.AppendName(table).AppendWord(U("ValueIds"));
    try {
        const utility::string_t address = chunkAddress.ToString();
        const AuthenticationSettings& settings = *authenticationSettings;
        pplx::task<int> upload = pplx::create_task([attributes, first, last, address, &settings] {
            return UploadValueIdColumns(attributes, first, last, address, settings);
        });
        // get() rethrows the body's exception, or task_canceled for a cancelled task.
        return upload.get();
    } catch (const std::exception& e) {
        ThrowPlainException(e);
    }
}
