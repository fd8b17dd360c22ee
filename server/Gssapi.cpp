#include "Gssapi.h"

#include <stdexcept>

namespace lxrepo {

namespace {

gss_OID_desc ntlmMechanism = {10, const_cast<char*>("\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a")};

std::string Messages(OM_uint32 status, int type, gss_OID mechanism) {
    std::string text;
    OM_uint32 context = 0;
    do {
        OM_uint32 minor = 0;
        gss_buffer_desc message = GSS_C_EMPTY_BUFFER;
        if (GSS_ERROR(gss_display_status(&minor, status, type, mechanism, &context, &message))) {
            break;
        }
        text += (text.empty() ? "" : "; ") +
                std::string(static_cast<const char*>(message.value), message.length);
        gss_release_buffer(&minor, &message);
    } while (context != 0);
    return text;
}

} // namespace

gss_OID NtlmMechanism() { return &ntlmMechanism; }

std::string DisplayName(gss_name_t name) {
    OM_uint32 minor = 0;
    gss_buffer_desc text = GSS_C_EMPTY_BUFFER;
    if (GSS_ERROR(gss_display_name(&minor, name, &text, nullptr))) {
        return {};
    }
    std::string result(static_cast<const char*>(text.value), text.length);
    gss_release_buffer(&minor, &text);
    // gss-ntlmssp counts the terminating NUL in the length.
    while (!result.empty() && result.back() == '\0') {
        result.pop_back();
    }
    return result;
}

std::string StatusText(OM_uint32 major, OM_uint32 minor) {
    return Messages(major, GSS_C_GSS_CODE, GSS_C_NO_OID) + " (" +
           Messages(minor, GSS_C_MECH_CODE, NtlmMechanism()) + ")";
}

gss_name_t ImportServiceName(const std::string& host) {
    std::string service = "HTTP@" + host;
    gss_buffer_desc text = {service.size(), service.data()};
    gss_name_t name = GSS_C_NO_NAME;
    OM_uint32 minor = 0;
    const OM_uint32 major = gss_import_name(&minor, &text, GSS_C_NT_HOSTBASED_SERVICE, &name);
    if (GSS_ERROR(major)) {
        throw std::runtime_error("cannot import the service name " + service + ": " +
                                 StatusText(major, minor));
    }
    return name;
}

} // namespace lxrepo
