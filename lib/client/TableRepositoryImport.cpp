#include "TableRepositoryImport.h"

#include "client/AuthenticationSettings.h"

#include <cstring>
#include <new>

IMPLEMENT_RUNTIMECLASS(CTableRepositoryImport, CObject, CTableRepositoryImport::CreateObject)

CTableRepositoryImport::CTableRepositoryImport()
    : authenticationSettings(new AuthenticationSettings) {}

// Deleting the settings wipes the access token before its memory goes back to the heap.
CTableRepositoryImport::~CTableRepositoryImport() { delete authenticationSettings; }

CObject* CTableRepositoryImport::CreateObject() { return new_TableRepositoryImport(); }

extern "C" CObject* new_TableRepositoryImport() {
    void* memory = ::operator new(sizeof(CTableRepositoryImport), std::nothrow);
    if (memory == nullptr) {
        return nullptr;
    }
    // Hosts have always received a zero-filled object; keep it so for members they might inspect.
    std::memset(memory, 0, sizeof(CTableRepositoryImport));
    try {
        return new (memory) CTableRepositoryImport();
    } catch (const std::bad_alloc&) {
        ::operator delete(memory);
        return nullptr;
    }
}
