#pragma once

#include "host/portable/Object.h"

// Framework exceptions are thrown by pointer and released by the catcher with Delete().
class HOST_FRAMEWORK_API CException : public CObject {
public:
    explicit CException(BOOL autoDelete = TRUE) : m_bAutoDelete(autoDelete) {}
    // Frees a heap exception; a shared static one (see AfxThrowResourceException) stays.
    void Delete() {
        if (m_bAutoDelete) {
            delete this;
        }
    }

protected:
    BOOL m_bAutoDelete;
};

class HOST_FRAMEWORK_API CResourceException : public CException {
public:
    explicit CResourceException(BOOL autoDelete = TRUE) : CException(autoDelete) {}
};

// As in the framework, one static instance is thrown, so a catcher that forgets Delete() leaks
// nothing.
[[noreturn]] inline void AfxThrowResourceException() {
    static CResourceException instance(FALSE);
    throw &instance;
}
