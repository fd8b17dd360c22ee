#include "TableRepositoryImport.h"

#include <stdexcept>

TestConnectionResult CTableRepositoryImport::TestConnection(CString) {
    throw std::logic_error("not implemented");
}
