#include "TableRepositoryImport.h"

#include <stdexcept>

int CTableRepositoryImport::CreateAttributeDefinitions(CString, CList<DesktopAttributeDTO*>*) {
    throw std::logic_error("not implemented");
}
