#include "TableRepositoryImport.h"

#include <stdexcept>

int CTableRepositoryImport::ImportValueIdsChunk(CString, long, long, CList<CRepoAttribute*>*,
                                                int) {
    throw std::logic_error("not implemented");
}
