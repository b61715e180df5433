#include "ConsoleCertificate.h"

#include <arpa/inet.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "PathNames.h"
#include "RootFolder.h"
#include "SafePath.h"
#include "StateFolder.h"

namespace velnor::host {
namespace {

// Long enough that no one has to renew what is only checked by its fingerprint.
constexpr long kMadeCertificateDays = 10 * 365;

struct FreeBio {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using Bio = std::unique_ptr<BIO, FreeBio>;

// OpenSSL's reason for the last failure, for a message.
std::string openSslReason() {
    const unsigned long error = ERR_get_error();
    if (error == 0) {
        return "OpenSSL gave no reason";
    }
    char text[256];
    ERR_error_string_n(error, text, sizeof text);
    ERR_clear_error();
    return text;
}

support::Result<ConsoleCertificate> parsePair(const std::string& certificatePath,
                                              const std::string& keyPath) {
    support::Result<std::string> certificateText = support::readRootsFile(certificatePath, true);
    if (!certificateText) {
        return certificateText.failure();
    }
    support::Result<std::string> keyText = support::readRootsFile(keyPath, false);
    if (!keyText) {
        return keyText.failure();
    }
    Bio certificateBio(
        BIO_new_mem_buf(certificateText->data(), static_cast<int>(certificateText->size())));
    Bio keyBio(BIO_new_mem_buf(keyText->data(), static_cast<int>(keyText->size())));
    ConsoleCertificate pair;
    pair.certificate.reset(PEM_read_bio_X509(certificateBio.get(), nullptr, nullptr, nullptr));
    if (!pair.certificate) {
        return support::couldNot("read the certificate in", certificatePath, openSslReason());
    }
    pair.key.reset(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr));
    if (!pair.key) {
        return support::couldNot("read the key in", keyPath, openSslReason());
    }
    if (X509_check_private_key(pair.certificate.get(), pair.key.get()) != 1) {
        return support::couldNot("use", keyPath, "it is not the key of " + certificatePath);
    }
    pair.fingerprint = fingerprintOf(pair.certificate.get());
    return pair;
}

bool exists(const char* path) {
    return access(path, F_OK) == 0;
}

bool addExtension(X509* certificate, int nid, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
    if (extension == nullptr) {
        return false;
    }
    const bool added = X509_add_ext(certificate, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    return added;
}

// The names a browser may reach the console by: its address, when it is one, and this machine's
// name.
std::string alternativeNames(const std::string& address) {
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    unsigned char binary[16];
    const bool numeric = inet_pton(AF_INET, address.c_str(), binary) == 1 ||
                         inet_pton(AF_INET6, address.c_str(), binary) == 1;
    std::string names = numeric ? "IP:" + address : "DNS:" + address;
    if (host[0] != '\0' && address != host) {
        names += std::string(",DNS:") + host;
    }
    return names;
}

support::Result<ConsoleCertificate> makeCertificate(const std::string& address) {
    ConsoleCertificate made;
    made.key.reset(EVP_EC_gen("P-256"));
    made.certificate.reset(X509_new());
    if (!made.key || !made.certificate) {
        return support::couldNot("make", "the console's certificate", openSslReason());
    }
    X509* certificate = made.certificate.get();
    unsigned char serial[16];
    std::unique_ptr<BIGNUM, decltype(&BN_free)> number(BN_new(), BN_free);
    X509_NAME* name = X509_get_subject_name(certificate);
    const bool built =
        X509_set_version(certificate, 2) == 1 && RAND_bytes(serial, sizeof serial) == 1 && number &&
        BN_bin2bn(serial, sizeof serial, number.get()) != nullptr &&
        BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) != nullptr &&
        X509_gmtime_adj(X509_getm_notBefore(certificate), 0) != nullptr &&
        X509_time_adj_ex(X509_getm_notAfter(certificate), kMadeCertificateDays, 0, nullptr) !=
            nullptr &&
        X509_set_pubkey(certificate, made.key.get()) == 1 &&
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(address.c_str()), -1, -1,
                                   0) == 1 &&
        X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>("velnord web console"),
                                   -1, -1, 0) == 1 &&
        X509_set_issuer_name(certificate, name) == 1 &&
        addExtension(certificate, NID_subject_alt_name, alternativeNames(address)) &&
        addExtension(certificate, NID_basic_constraints, "critical,CA:FALSE") &&
        addExtension(certificate, NID_ext_key_usage, "serverAuth") &&
        X509_sign(certificate, made.key.get(), EVP_sha256()) > 0;
    if (!built) {
        return support::couldNot("make", "the console's certificate", openSslReason());
    }
    made.fingerprint = fingerprintOf(certificate);
    return made;
}

// The PEM text that write puts into a memory buffer.
template <typename Write>
support::Result<std::string> pemOf(Write write) {
    Bio bio(BIO_new(BIO_s_mem()));
    if (!bio || write(bio.get()) != 1) {
        return support::couldNot("write", "the console's certificate", openSslReason());
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(size));
}

// Keeps what was made for the next start: the key first, so that a certificate is never left
// without it.
support::Status keep(const ConsoleCertificate& made) {
    if (auto folder = openStateFolder(support::folderOf(kMadeCertificateFolder)); !folder) {
        return folder.failure();
    }
    if (auto folder = support::openRootOnlyFolder(kMadeCertificateFolder, "certificate folder");
        !folder) {
        return folder.failure();
    }
    support::Result<std::string> key = pemOf([&made](BIO* bio) {
        return PEM_write_bio_PrivateKey(bio, made.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
    support::Result<std::string> certificate =
        pemOf([&made](BIO* bio) { return PEM_write_bio_X509(bio, made.certificate.get()); });
    if (!key || !certificate) {
        return key ? certificate.failure() : key.failure();
    }
    if (auto written =
            support::replaceFile(kMadeKey, *key, support::Attributes{0600, 0, 0, "root:root"});
        !written) {
        return written;
    }
    return support::replaceFile(kMadeCertificate, *certificate,
                                support::Attributes{0644, 0, 0, "root:root"});
}

}  // namespace

std::string fingerprintOf(X509* certificate) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    X509_digest(certificate, EVP_sha256(), digest, &length);
    std::string text;
    for (unsigned int index = 0; index < length; ++index) {
        char pair[4];
        std::snprintf(pair, sizeof pair, index == 0 ? "%02X" : ":%02X", digest[index]);
        text += pair;
    }
    return text;
}

support::Result<ConsoleCertificate> consoleCertificate(const std::string& address) {
    if (exists(kAdministratorCertificate) || exists(kAdministratorKey)) {
        return parsePair(kAdministratorCertificate, kAdministratorKey);
    }
    if (exists(kMadeCertificate) && exists(kMadeKey)) {
        return parsePair(kMadeCertificate, kMadeKey);
    }
    support::Result<ConsoleCertificate> made = makeCertificate(address);
    if (!made) {
        return made;
    }
    if (support::Status kept = keep(*made); !kept) {
        return kept.failure();
    }
    return made;
}

}  // namespace velnor::host
