#include "support/TestCertificates.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <unistd.h>

namespace testsupport {

namespace {

// A fresh P-256 key and its certificate for names, by authority (none: an authority itself);
// days < 0 makes one that has already expired. openssl's output goes to a log in dir.
TlsFiles Issue(const std::string& dir, const std::string& name, const std::string& authority = "",
               const std::string& names = "", int days = 2) {
    const TlsFiles files{dir + "/" + name + ".pem", dir + "/" + name + ".key"};
    std::string command = "cd '" + dir +
                          "' && openssl req -newkey ec -pkeyopt "
                          "ec_paramgen_curve:P-256 -nodes -subj /CN=" +
                          name + " -keyout " + files.key;
    if (authority.empty()) {
        command += " -x509 -days 2 -out " + files.certificate;
    } else {
        std::ofstream(dir + "/" + name + ".ext") << "subjectAltName=" << names << "\n";
        command += " 2>>openssl.log | openssl x509 -req -CA " + authority + ".pem -CAkey " +
                   authority + ".key -CAcreateserial -days " + std::to_string(days) + " -extfile " +
                   name + ".ext -out " + files.certificate;
    }
    if (std::system((command + " >>openssl.log 2>&1").c_str()) != 0) {
        throw std::runtime_error("openssl failed, see " + dir + "/openssl.log: " + command);
    }
    return files;
}

TestCertificates Make(const std::string& dir) {
    std::filesystem::create_directories(dir);
    const std::string loopback = "IP:127.0.0.1,IP:127.0.0.2,DNS:localhost";
    TestCertificates made;
    made.authority = Issue(dir, "test-ca").certificate;
    Issue(dir, "other-ca");
    made.trusted = Issue(dir, "trusted", "test-ca", loopback);
    made.otherAuthority = Issue(dir, "other", "other-ca", loopback);
    made.expired = Issue(dir, "expired", "test-ca", loopback, -1);
    made.otherName = Issue(dir, "elsewhere", "test-ca", "DNS:elsewhere.invalid");
    setenv("SSL_CERT_FILE", made.authority.c_str(), 1);
    return made;
}

} // namespace

const TestCertificates& Certificates() {
    static const struct Made {
        std::string dir = std::filesystem::temp_directory_path().string() + "/tri-tls-" +
                          std::to_string(getpid());
        TestCertificates certificates = Make(dir);
        ~Made() { std::filesystem::remove_all(dir); }
    } made;
    return made.certificates;
}

} // namespace testsupport
