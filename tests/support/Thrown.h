// What a call threw, by its dynamic type and message: the host catches by type, so tests pin
// both, and print them when they differ.
#pragma once

#include "TableRepositoryImport.h"

#include <functional>
#include <ostream>
#include <string>
#include <typeinfo>

namespace testsupport {

struct Thrown {
    std::string type; // typeid name, "CResourceException" for the framework's, "" for nothing
    std::string message;
    bool operator==(const Thrown& o) const { return type == o.type && message == o.message; }
    bool operator!=(const Thrown& o) const { return !(*this == o); }
};

inline std::ostream& operator<<(std::ostream& out, const Thrown& t) {
    return t.type.empty() ? out << "(nothing thrown)" : out << t.type << " \"" << t.message << "\"";
}

template <class Exception> Thrown Expected(const std::string& message) {
    return {typeid(Exception).name(), message};
}
inline const Thrown kNothing{};
inline const Thrown kResourceException{"CResourceException", ""};

inline Thrown ThrownBy(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::exception& e) {
        return {typeid(e).name(), e.what()};
    } catch (CException* e) {
        const bool resource = dynamic_cast<CResourceException*>(e) != nullptr;
        e->Delete();
        return {resource ? "CResourceException" : "CException", ""};
    }
    return kNothing;
}

} // namespace testsupport
