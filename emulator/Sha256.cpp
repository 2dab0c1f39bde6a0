#include "Sha256.h"

#include <openssl/evp.h>

Sha256::Sha256()
    : m_context(EVP_MD_CTX_new())
{
    EVP_DigestInit_ex(m_context, EVP_sha256(), nullptr);
}

Sha256::~Sha256()
{
    EVP_MD_CTX_free(m_context);
}

void Sha256::add(const char* data, size_t size)
{
    EVP_DigestUpdate(m_context, data, size);
}

QByteArray Sha256::result()
{
    QByteArray digest(EVP_MAX_MD_SIZE, Qt::Uninitialized);
    unsigned int length = 0;
    EVP_DigestFinal_ex(m_context, reinterpret_cast<unsigned char*>(digest.data()), &length);
    digest.resize(int(length));
    EVP_DigestInit_ex(m_context, EVP_sha256(), nullptr);
    return digest;
}

QByteArray Sha256::hex(const QByteArray& data)
{
    Sha256 hash;
    hash.add(data);
    return hash.result().toHex();
}
