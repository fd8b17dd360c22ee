#include "TableRepositoryImport.h"

#include <stdexcept>

int CTableRepositoryImport::ImportDistinctValuesChunk(CString, CString, long, long,
                                                      CDistinctValues*, int) {
    throw std::logic_error("not implemented");
}
