#include "TableRepositoryImport.h"

#include <stdexcept>

void CTableRepositoryImport::RegisterWithAuthenticationProxy(CAuthenticationProxyConfiguration) {
    throw std::logic_error("not implemented");
}

CAuthenticationProxyResult
CTableRepositoryImport::UnregisterFromAuthenticationProxy(CAuthenticationProxyConfiguration) {
    throw std::logic_error("not implemented");
}
