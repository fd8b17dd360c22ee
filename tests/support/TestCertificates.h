// Certificates of throwaway authorities, made once per test process with the openssl command. The
// process trusts the test authority from the first call on, through OpenSSL's own SSL_CERT_FILE:
// the library (as cpprestsdk does by default), lxrepo-server's outgoing https and child
// processes such as lxrepo all see it as the system's store.
#pragma once

#include <string>

namespace testsupport {

struct TlsFiles {
    std::string certificate; // PEM
    std::string key;         // PEM
};

struct TestCertificates {
    std::string authority;   // the trusted authority's certificate
    TlsFiles trusted;        // by it, for 127.0.0.1, 127.0.0.2 and localhost
    TlsFiles otherAuthority; // the same names, by an authority nobody trusts
    TlsFiles expired;        // by the trusted authority, expired since yesterday
    TlsFiles otherName;      // by the trusted authority, for elsewhere.invalid only
};

// Throws std::runtime_error when openssl fails.
const TestCertificates& Certificates();

} // namespace testsupport
