// The client as a host that loads the library at run time sees it: the exported factory by its
// plain name, the runtime class, and an object that owns and releases what it holds.
#include <gtest/gtest.h>

#include "TableRepositoryImport.h"

#include <dlfcn.h>

#include <cstring>

namespace {

TEST(Factory, IsFoundByItsPlainNameInTheSharedLibraryAndCreatesTheClient) {
    void* library = dlopen(TRI_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    using Factory = CObject* (*)();
    auto factory = reinterpret_cast<Factory>(dlsym(library, "new_TableRepositoryImport"));
    ASSERT_NE(factory, nullptr) << dlerror();

    CObject* object = factory();
    ASSERT_NE(object, nullptr);
    EXPECT_STREQ(object->GetRuntimeClass()->m_lpszClassName, "CTableRepositoryImport");
    EXPECT_EQ(object->GetRuntimeClass()->m_pBaseClass->m_lpszClassName, std::string("CObject"));
    delete object;
    dlclose(library);
}

TEST(Factory, RuntimeClassCreatesTheSameKindOfObject) {
    CObject* object = RUNTIME_CLASS(CTableRepositoryImport)->CreateObject();
    ASSERT_NE(object, nullptr);
    EXPECT_TRUE(object->IsKindOf(RUNTIME_CLASS(CTableRepositoryImport)));
    EXPECT_TRUE(object->IsKindOf(RUNTIME_CLASS(CObject)));
    EXPECT_EQ(object->GetRuntimeClass(), CTableRepositoryImport::GetThisClass());
    EXPECT_EQ(RUNTIME_CLASS(CTableRepositoryImport)->m_nObjectSize,
              static_cast<int>(sizeof(CTableRepositoryImport)));
    delete object;
}

} // namespace
