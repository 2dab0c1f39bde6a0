// The reply parser over arbitrary replies: status, transport error, "Set-Cookie" and
// body bytes, read twice in a row (the second reading keeps the first's message).
//
// Input: 4 bytes status, 4 bytes network error, 2 bytes "Set-Cookie" length, that many
// bytes of "Set-Cookie", the rest the body; a second reply follows the same way when
// the input holds one after a 0xff 0xff 0xff 0xff separator.
#include "NBBaseParse.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

int readInt(const uint8_t*& data, size_t& size)
{
    int32_t value = 0;
    const size_t take = size < 4 ? size : 4;
    std::memcpy(&value, data, take);
    data += take;
    size -= take;
    return value;
}

ResponseData readReply(const uint8_t* data, size_t size)
{
    ResponseData reply;
    reply.statusCode = readInt(data, size);
    reply.networkError = readInt(data, size);
    reply.errorString = QStringLiteral("transport");
    size_t cookieLength = 0;
    if (size >= 2) {
        cookieLength = (size_t(data[0]) << 8 | data[1]) % (size - 1);
        data += 2;
        size -= 2;
    }
    reply.headers.insert("Set-Cookie", QByteArray(reinterpret_cast<const char*>(data), int(cookieLength)));
    reply.body
        = QString::fromUtf8(reinterpret_cast<const char*>(data + cookieLength), int(size - cookieLength));
    return reply;
}

void check(bool holds)
{
    if (!holds)
        std::abort();
}

void readAndCheck(NBBaseParse& reading, const ResponseData& reply)
{
    reading.ParseResp(reply);
    const int status = reply.statusCode;
    const bool success = status >= 200 && status <= 399;
    check(reading.statusCode() == status);
    check(reading.body() == reply.body);
    check(reading.hasError() == (reading.errorCode() != 0 || !success));
    // A success leaves the transport's code; an error object may only map it into 20001-20031.
    if (success)
        check(reading.errorCode() == reply.networkError);
    else
        check(reading.errorCode() == reply.networkError
            || (reading.errorCode() >= 20001 && reading.errorCode() <= 20031));
    const QString value = reading.s();
    check(value.isEmpty() || !value.contains(QLatin1Char(';')));
    check(!reading.errorMsg().message.isEmpty() || reply.errorString.isEmpty());
    (void)reading.sessiondId();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const uint8_t separator[] = { 0xff, 0xff, 0xff, 0xff };
    const uint8_t* second = nullptr;
    for (size_t i = 0; i + 4 <= size; ++i) {
        if (std::memcmp(data + i, separator, 4) == 0) {
            second = data + i;
            break;
        }
    }
    NBBaseParse reading;
    const size_t firstSize = second ? size_t(second - data) : size;
    readAndCheck(reading, readReply(data, firstSize));
    if (second)
        readAndCheck(reading, readReply(second + 4, size - firstSize - 4));
    return 0;
}
