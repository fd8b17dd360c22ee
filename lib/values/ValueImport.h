#pragma once

#include "client/ServiceRequest.h"
#include "host/ImportRecords.h"

#include <cstddef>
#include <cstdint>
#include <string>

// Pieces shared by the value-import operations: the attribute address and the two walks over
// what the host hands in (its list of attributes, a half-open range of its indices).

// "/Import/Tables" / table / phase / attribute, with the host's names percent-encoded.
inline ServiceAddress AttributeAddress(const std::wstring& serviceAddress, const CString& table,
                                       const utility::string_t& phase, const CString& attribute) {
    ServiceAddress address(serviceAddress, U("/Import/Tables"));
    address.AppendName(table).AppendWord(phase).AppendName(attribute);
    return address;
}

template <class Visit> void ForEachAttribute(CList<CRepoAttribute*>* attributes, Visit visit) {
    for (POSITION pos = attributes->GetHeadPosition(); pos != nullptr;) {
        visit(attributes->GetNext(pos));
    }
}

// Walks the host's list head to tail and stops at the first attribute the service refuses
// (command returns 0); what was sent before it stays sent.
template <class Command> int UntilRefused(CList<CRepoAttribute*>* attributes, Command command) {
    for (POSITION pos = attributes->GetHeadPosition(); pos != nullptr;) {
        if (command(attributes->GetNext(pos)) == 0) {
            return 0;
        }
    }
    return 1;
}

// The host's records take 32-bit signed indices, while the operations receive long, which is
// wider on LP64 platforms; the bounds are narrowed as the records would see them. The comparison
// is signed, so first >= last is simply an empty range.
template <class Visit> void ForEachIndex(long first, long last, Visit visit) {
    const auto end = static_cast<std::int32_t>(last);
    for (auto index = static_cast<std::int32_t>(first); index < end; ++index) {
        visit(index);
    }
}

inline std::size_t IndexCount(long first, long last) {
    const auto begin = static_cast<std::int64_t>(static_cast<std::int32_t>(first));
    const auto end = static_cast<std::int64_t>(static_cast<std::int32_t>(last));
    return end > begin ? static_cast<std::size_t>(end - begin) : 0;
}
