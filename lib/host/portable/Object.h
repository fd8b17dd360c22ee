#pragma once

#include "host/portable/Types.h"

#include <cstring>

class CObject;
class CArchive;
class CDumpContext;

// Run-time class record: name, size and the routine that creates an object dynamically.
struct HOST_FRAMEWORK_API CRuntimeClass {
    const char* m_lpszClassName;
    int m_nObjectSize;
    unsigned int m_wSchema;
    CObject* (*m_pfnCreateObject)();
    const CRuntimeClass* m_pBaseClass;

    CObject* CreateObject() const { return m_pfnCreateObject ? m_pfnCreateObject() : nullptr; }
    BOOL IsDerivedFrom(const CRuntimeClass* base) const {
        for (const CRuntimeClass* c = this; c != nullptr; c = c->m_pBaseClass) {
            if (c == base || std::strcmp(c->m_lpszClassName, base->m_lpszClassName) == 0) {
                return TRUE;
            }
        }
        return FALSE;
    }
};

class HOST_FRAMEWORK_API CObject {
public:
    static const CRuntimeClass classCObject;

    virtual CRuntimeClass* GetRuntimeClass() const {
        return const_cast<CRuntimeClass*>(&classCObject);
    }
    virtual ~CObject() = default;
    virtual void Serialize(CArchive&) {}
    virtual void AssertValid() const {}
    virtual void Dump(CDumpContext&) const {}

    BOOL IsKindOf(const CRuntimeClass* cls) const { return GetRuntimeClass()->IsDerivedFrom(cls); }

protected:
    CObject() = default;

public:
    // Framework objects are not copyable unless a class says so itself.
    CObject(const CObject&) = delete;
    CObject& operator=(const CObject&) = delete;
};

inline const CRuntimeClass CObject::classCObject = {"CObject", sizeof(CObject), 0xffff, nullptr,
                                                   nullptr};

#define RUNTIME_CLASS(class_name) (const_cast<CRuntimeClass*>(&class_name::class##class_name))

#define DECLARE_DYNCREATE(class_name)                                                              \
public:                                                                                            \
    static const CRuntimeClass class##class_name;                                                  \
    static CRuntimeClass* GetThisClass();                                                          \
    CRuntimeClass* GetRuntimeClass() const override;                                               \
    static CObject* CreateObject();

#define IMPLEMENT_RUNTIMECLASS(class_name, base_class_name, create)                                \
    const CRuntimeClass class_name::class##class_name = {#class_name, sizeof(class_name), 0xffff,  \
                                                         create, RUNTIME_CLASS(base_class_name)};  \
    CRuntimeClass* class_name::GetThisClass() { return RUNTIME_CLASS(class_name); }                \
    CRuntimeClass* class_name::GetRuntimeClass() const { return RUNTIME_CLASS(class_name); }

#define IMPLEMENT_DYNCREATE(class_name, base_class_name)                                           \
    CObject* class_name::CreateObject() { return new class_name; }                                 \
    IMPLEMENT_RUNTIMECLASS(class_name, base_class_name, class_name::CreateObject)
