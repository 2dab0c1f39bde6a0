// SHA-256 through OpenSSL, whole or fed piece by piece; digests as lower-case hex.
#pragma once

#include <QByteArray>
#include <memory>

struct evp_md_ctx_st;

class Sha256
{
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void add(const char* data, size_t size);
    void add(const QByteArray& data) { add(data.constData(), size_t(data.size())); }
    // The raw 32 bytes; the hasher starts over afterwards.
    QByteArray result();

    static QByteArray hex(const QByteArray& data);

private:
    evp_md_ctx_st* m_context;
};
