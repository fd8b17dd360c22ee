// What the NTLM acceptor and initiator share of GSSAPI.
#pragma once

#include <gssapi/gssapi.h>

#include <string>

namespace lxrepo {

// 1.3.6.1.4.1.311.2.2.10: raw NTLMSSP, whose tokens are the bare NTLM messages that go into
// "Authorization: NTLM ..." (no SPNEGO wrapping).
gss_OID NtlmMechanism();

// The text of a name ("DOMAIN\user"), "" if GSSAPI cannot show it.
std::string DisplayName(gss_name_t name);

// "major: ...; minor: ..." for log lines and error bodies.
std::string StatusText(OM_uint32 major, OM_uint32 minor);

// Imports "HTTP@host", the service name both ends of the handshake use.
gss_name_t ImportServiceName(const std::string& host);

} // namespace lxrepo
