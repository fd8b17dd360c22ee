#include "support/TestCertificates.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <unistd.h>

namespace testsupport {

namespace {

// openssl with a fresh P-256 key; the output goes to the log only when something fails.
void OpenSsl(const std::string& dir, const std::string& arguments) {
    const std::string command = "cd '" + dir + "' && openssl " + arguments + " >>openssl.log 2>&1";
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("openssl failed, see " + dir + "/openssl.log: " + arguments);
    }
}

std::string Authority(const std::string& dir, const std::string& name) {
    OpenSsl(dir, "req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=" +
                     name + " -keyout " + name + ".key -out " + name + ".pem");
    return dir + "/" + name + ".pem";
}

// A server certificate; days < 0 makes one that has already expired.
TlsFiles Issue(const std::string& dir, const std::string& name, const std::string& authority,
               const std::string& names, int days) {
    OpenSsl(dir, "req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=" + name +
                     " -keyout " + name + ".key -out " + name + ".csr");
    std::ofstream(dir + "/" + name + ".ext") << "subjectAltName=" << names << "\n";
    OpenSsl(dir, "x509 -req -in " + name + ".csr -CA " + authority + ".pem -CAkey " + authority +
                     ".key -CAcreateserial -days " + std::to_string(days) + " -extfile " + name +
                     ".ext -out " + name + ".pem");
    return {dir + "/" + name + ".pem", dir + "/" + name + ".key"};
}

TestCertificates Make(const std::string& dir) {
    std::filesystem::create_directories(dir);
    const std::string loopback = "IP:127.0.0.1,IP:127.0.0.2,DNS:localhost";
    TestCertificates made;
    made.authority = Authority(dir, "test-ca");
    Authority(dir, "other-ca");
    made.trusted = Issue(dir, "trusted", "test-ca", loopback, 2);
    made.otherAuthority = Issue(dir, "other", "other-ca", loopback, 2);
    made.expired = Issue(dir, "expired", "test-ca", loopback, -1);
    made.otherName = Issue(dir, "elsewhere", "test-ca", "DNS:elsewhere.invalid", 2);
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
