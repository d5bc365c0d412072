// Test PKI for the HTTPS delivery tests: a CA, a server certificate and two
// client certificates signed by it, and an unrelated second CA for the
// "certificate does not verify" cases. Everything is generated with the
// OpenSSL C API at test time (EC P-256 keys, so it takes milliseconds).
#ifndef RFEVENT_TESTS_CERTS_H
#define RFEVENT_TESTS_CERTS_H

#include <string>

namespace rfevent::testkit {

// Paths of the generated PEM files. All of them live in `dir`.
struct TestPki {
    std::string dir;
    std::string caCert;          // dir/ca.crt
    std::string caKey;           // dir/ca.key
    std::string serverCert;      // dir/server.crt, SAN IP:127.0.0.1 and DNS:localhost
    std::string serverKey;       // dir/server.key
    std::string clientCert;      // dir/client.crt, CN "rfevent-client", EKU clientAuth
    std::string clientKey;       // dir/client.key
    std::string otherClientCert; // dir/client2.crt, CN "rfevent-client-2", same CA
    std::string otherClientKey;  // dir/client2.key
    std::string otherCaCert;     // dir/other.crt, a CA that signed nothing above
    std::string otherCaKey;      // dir/other.key
};

// Subject CN of the generated client certificate.
inline constexpr const char* kTestClientCn = "rfevent-client";
// Subject CN of the second client certificate, signed by the same CA.
inline constexpr const char* kOtherClientCn = "rfevent-client-2";

// Generates the PKI into `dir` (created if missing). The result is cached per
// folder for the life of the process: later calls with the same folder return
// the same files without regenerating them (unless they were deleted).
// Throws std::runtime_error on any failure.
TestPki generateTestPki(const std::string& dir);

// Copies the client certificate, the client key and a CA bundle to the fixed
// locations the product reads, below the sandbox root `root`:
//   root/etc/certs/CA/certs/host.crt          <- client certificate
//   root/flash/data0/cv/private/host.key      <- client key
//   root/etc/certs/pubkey/https_server_ca.crt <- CA bundle: the test CA, or
//                                                the unrelated CA if !goodCa
// Parent folders are created; existing files are overwritten.
void installClientCredentials(const TestPki& pki, const std::string& root, bool goodCa = true);

// Puts the second client certificate and its key in place of the first, at the same fixed
// locations, as an operator replacing the controller's certificate would.
void installOtherClientIdentity(const TestPki& pki, const std::string& root);

} // namespace rfevent::testkit

#endif
