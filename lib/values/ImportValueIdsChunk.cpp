#include "TableRepositoryImport.h"

#include "client/PlainException.h"
#include "client/ServiceRequest.h"
#include "client/TextConversion.h"
#include "values/ValueImport.h"

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <utility>

namespace {

// Where one chunk lives on its way out: the ids of its rows as integers, column after column in
// list order, each column in row order, and room for one column's text, written when its turn
// comes and sent from there. The memory is taken by the host's thread before the task starts:
// cpprestsdk runs each chunk on whichever of its workers is free, and a buffer taken there comes
// from that worker's malloc arena, often one it has not used before, so every page is a fresh page
// fault; the host's thread keeps one arena from chunk to chunk, which maps the pages once.
class ValueIdChunk {
public:
    ValueIdChunk(std::size_t rows, std::size_t columns)
        : m_rows(rows), m_columns(columns),
          m_ids(new std::int32_t[rows * columns + IdsFor(JsonIntArrayCapacity(rows))]) {}

    // Asks GetValueIds anew for every row: the host may hand out a different reader each time.
    // All of it is read before the first request, so the host's records are done with before
    // anything goes on the wire.
    void Read(CList<CRepoAttribute*>* attributes, long first, long last) {
        std::size_t row = 0;
        ForEachIndex(first, last, [&](int index) {
            std::int32_t* id = m_ids.get() + row++;
            std::size_t column = 0;
            ForEachAttribute(attributes, [&](CRepoAttribute* attribute) {
                if (column++ == m_columns) {
                    throw std::length_error("the attribute list grew while its ids were read");
                }
                *id = attribute->GetValueIds()->GetValueId(index);
                id += m_rows;
            });
        });
    }

    // The text of a column; it stays valid until the next column is written.
    JsonText ColumnText(std::size_t column) {
        char* const text = reinterpret_cast<char*>(m_ids.get() + m_rows * m_columns);
        const char* const end = WriteJsonIntArray(text, m_ids.get() + column * m_rows, m_rows);
        return JsonText::Borrowing(text, static_cast<std::size_t>(end - text));
    }

private:
    static std::size_t IdsFor(std::size_t bytes) {
        return (bytes + sizeof(std::int32_t) - 1) / sizeof(std::int32_t);
    }

    std::size_t m_rows;
    std::size_t m_columns;
    std::unique_ptr<std::int32_t[]> m_ids;
};

utility::string_t AttributeValueIdsAddress(const utility::string_t& chunkAddress,
                                           const CString& attribute) {
    web::uri_builder builder{web::uri(chunkAddress)};
    builder.append_path(ToStringT(attribute), true);
    return builder.to_string();
}

// The task's body. Runs on a worker thread of cpprestsdk's scheduler while the host's thread
// waits, so the host's records are never touched by two threads at once.
int UploadValueIdColumns(CList<CRepoAttribute*>* attributes, long first, long last,
                         utility::string_t chunkAddress, const AuthenticationSettings& settings,
                         ValueIdChunk& chunk) {
    chunk.Read(attributes, first, last);
    std::size_t column = 0;
    return UntilRefused(attributes, [&](CRepoAttribute* attribute) {
        const utility::string_t address =
            AttributeValueIdsAddress(chunkAddress, attribute->GetName());
        // The response is in before the next column's text takes this one's place.
        return AcceptOnly(PostToService(settings, address, chunk.ColumnText(column++)),
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
        ValueIdChunk chunk(IndexCount(first, last),
                           static_cast<std::size_t>(attributes->GetCount()));
        pplx::task<int> upload =
            pplx::create_task([attributes, first, last, address, &settings, &chunk] {
                return UploadValueIdColumns(attributes, first, last, address, settings, chunk);
            });
        // get() rethrows the body's exception, or task_canceled for a cancelled task.
        return upload.get();
    } catch (const std::exception& e) {
        ThrowPlainException(e);
    }
}
