// The certificate that the console shows a browser when it listens beyond this machine: the
// administrator's own, when one is installed, else one that velnord makes itself on its first
// start and keeps, whose fingerprint `velnor web-url` prints so that the first visit can be
// checked.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

#include "Result.h"

namespace velnor::host {

// The administrator's certificate and key (PEM), root's, the key readable by root alone.
inline constexpr const char* kAdministratorCertificate = "/etc/velnor/tls/console.crt";
inline constexpr const char* kAdministratorKey = "/etc/velnor/tls/console.key";
// Where velnord keeps the certificate it made, and its key (root's, 0600).
inline constexpr const char* kMadeCertificateFolder = "/var/lib/velnor/tls";
inline constexpr const char* kMadeCertificate = "/var/lib/velnor/tls/console.crt";
inline constexpr const char* kMadeKey = "/var/lib/velnor/tls/console.key";

struct FreeCertificate {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
struct FreeKey {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};

struct ConsoleCertificate {
    std::unique_ptr<X509, FreeCertificate> certificate;
    std::unique_ptr<EVP_PKEY, FreeKey> key;
    // The SHA-256 digest of the certificate as browsers show it: "AB:CD:...".
    std::string fingerprint;
};

// The administrator's certificate when both its files are there; else the one velnord made,
// made now (for address, and this machine's name) when there is none. Fails when a file is not
// root's alone, cannot be read or parsed, or the key does not belong to the certificate.
support::Result<ConsoleCertificate> consoleCertificate(const std::string& address);

// The SHA-256 fingerprint of certificate, as browsers show it.
std::string fingerprintOf(X509* certificate);

}  // namespace velnor::host
