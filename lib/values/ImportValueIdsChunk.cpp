#include "TableRepositoryImport.h"

#include "client/PlainException.h"
#include "client/ServiceRequest.h"
#include "client/TextConversion.h"
#include "values/ValueImport.h"

#include <utility>
#include <vector>

namespace {

// One JSON array per attribute, in list order, each holding the ids of the chunk's rows in row
// order. GetValueIds is asked anew for every row: the host may hand out a different reader each
// time. All of it is read before the first request, so the host's records are done with before
// anything goes on the wire.
std::vector<web::json::value> ReadValueIdColumns(CList<CRepoAttribute*>* attributes, long first,
                                                 long last) {
    std::vector<std::vector<web::json::value>> ids(static_cast<std::size_t>(attributes->GetCount()));
    for (std::vector<web::json::value>& column : ids) {
        column.reserve(IndexCount(first, last));
    }
    ForEachIndex(first, last, [&](int row) {
        auto column = ids.begin();
        ForEachAttribute(attributes, [&](CRepoAttribute* attribute) {
            (column++)->push_back(web::json::value::number(attribute->GetValueIds()->GetValueId(row)));
        });
    });
    std::vector<web::json::value> columns;
    columns.reserve(ids.size());
    for (std::vector<web::json::value>& column : ids) {
        columns.push_back(web::json::value::array(std::move(column)));
    }
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
    std::vector<web::json::value> columns = ReadValueIdColumns(attributes, first, last);
    auto next = columns.begin();
    return UntilRefused(attributes, [&](CRepoAttribute* attribute) {
        // Each column is let go once sent, so the chunk's footprint shrinks as it goes out.
        const web::json::value column = std::move(*next++);
        const utility::string_t address = AttributeValueIdsAddress(chunkAddress, attribute->GetName());
        return AcceptOnly(PostToService(settings, address, column), web::http::status_codes::OK);
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
