#include "Certificate.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <cstdio>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A file of its owner's only, whatever the process's umask, opened for writing.
FILE* openPrivate(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    const int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return nullptr;
    ::fchmod(fd, 0600);
    return ::fdopen(fd, "w");
}

} // namespace

bool Certificate::ensureSelfSigned(
    const QString& dir, const QString& host, QString* cert, QString* key, QString* error)
{
    QDir().mkpath(dir);
    *cert = dir + QStringLiteral("/cert.pem");
    *key = dir + QStringLiteral("/key.pem");
    if (QFile::exists(*cert) && QFile::exists(*key)) {
        // A key made by an older version may be readable by others.
        ::chmod(QFile::encodeName(*key).constData(), 0600);
        return true;
    }
    EVP_PKEY* pkey = EVP_RSA_gen(2048);
    X509* certificate = X509_new();
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), long(QDateTime::currentSecsSinceEpoch()));
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 3650L * 24 * 3600);
    X509_set_pubkey(certificate, pkey);
    X509_NAME* name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(
        name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("nbemu"), -1, -1, 0);
    X509_set_issuer_name(certificate, name);
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    QString names = QStringLiteral("DNS:localhost,IP:127.0.0.1");
    if (!host.isEmpty() && host != QLatin1String("127.0.0.1") && host != QLatin1String("localhost"))
        names += (host.contains(QLatin1Char(':')) || host.at(0).isDigit() ? QStringLiteral(",IP:")
                                                                          : QStringLiteral(",DNS:"))
            + host;
    X509_EXTENSION* san
        = X509V3_EXT_conf_nid(nullptr, &context, NID_subject_alt_name, names.toLatin1().constData());
    if (san) {
        X509_add_ext(certificate, san, -1);
        X509_EXTENSION_free(san);
    }
    X509_sign(certificate, pkey, EVP_sha256());
    FILE* certFile = std::fopen(QFile::encodeName(*cert).constData(), "w");
    FILE* keyFile = openPrivate(*key);
    const bool ok = certFile && keyFile && PEM_write_X509(certFile, certificate)
        && PEM_write_PrivateKey(keyFile, pkey, nullptr, nullptr, 0, nullptr, nullptr);
    if (certFile)
        std::fclose(certFile);
    if (keyFile)
        std::fclose(keyFile);
    X509_free(certificate);
    EVP_PKEY_free(pkey);
    if (!ok)
        *error = QStringLiteral("cannot write the self-signed certificate to %1").arg(dir);
    return ok;
}
