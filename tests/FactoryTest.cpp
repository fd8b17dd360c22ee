// The client as a host that loads the library at run time sees it: the exported factory by its
// plain name, and the runtime class the host creates further objects through.
#include <gtest/gtest.h>

#include "TableRepositoryImport.h"

#include <dlfcn.h>

#include <memory>

namespace {

TEST(Factory, IsFoundByItsPlainNameInTheSharedLibraryAndCreatesTheClient) {
    void* library = dlopen(TRI_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    auto factory = reinterpret_cast<CObject* (*)()>(dlsym(library, "new_TableRepositoryImport"));
    ASSERT_NE(factory, nullptr) << dlerror();
    const std::unique_ptr<CObject> object(factory());
    ASSERT_NE(object, nullptr);
    EXPECT_STREQ(object->GetRuntimeClass()->m_lpszClassName, "CTableRepositoryImport");
    EXPECT_STREQ(object->GetRuntimeClass()->m_pBaseClass->m_lpszClassName, "CObject");
    const std::unique_ptr<CObject> another(RUNTIME_CLASS(CTableRepositoryImport)->CreateObject());
    EXPECT_TRUE(another != nullptr && another->IsKindOf(RUNTIME_CLASS(CTableRepositoryImport)));
}

} // namespace
