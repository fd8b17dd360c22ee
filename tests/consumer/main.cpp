// Creates the client the two ways a host can: the exported factory and the runtime class.
#include <TableRepositoryImport.h>

#include <cstdio>
#include <cstring>

int main() {
    CObject* fromFactory = new_TableRepositoryImport();
    CObject* fromRuntimeClass = RUNTIME_CLASS(CTableRepositoryImport)->CreateObject();
    int failures = 0;
    for (CObject* object : {fromFactory, fromRuntimeClass}) {
        if (object == nullptr || !object->IsKindOf(RUNTIME_CLASS(CTableRepositoryImport)) ||
            std::strcmp(object->GetRuntimeClass()->m_lpszClassName, "CTableRepositoryImport") != 0) {
            ++failures;
        }
        delete object;
    }
    std::printf("%s\n", failures == 0 ? "consumer ok" : "consumer FAILED");
    return failures;
}
