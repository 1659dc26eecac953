#include "authprotocol.h"

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace authproto {

namespace {

bool writeAll(int fd, const char *data, size_t size)
{
    while (size > 0) {
        ssize_t done = ::send(fd, data, size, MSG_NOSIGNAL);
        if (done < 0 && errno == ENOTSOCK)
            done = ::write(fd, data, size);
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        data += done;
        size -= size_t(done);
    }
    return true;
}

// The number of bytes read before the stream ended, or -1 on an error.
ssize_t readAll(int fd, char *data, size_t size)
{
    size_t got = 0;
    while (got < size) {
        const ssize_t n = ::read(fd, data + got, size - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        got += size_t(n);
    }
    return ssize_t(got);
}

void putBigEndian(char *out, uint32_t value)
{
    for (int i = 3; i >= 0; --i) {
        out[i] = char(value & 0xff);
        value >>= 8;
    }
}

uint32_t getBigEndian(const char *in)
{
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
        value = (value << 8) | uint8_t(in[i]);
    return value;
}

} // namespace

bool writeFrame(int fd, char type, const std::string &payload)
{
    std::string frame(5, '\0');
    putBigEndian(&frame[0], uint32_t(payload.size() + 1));
    frame[4] = type;
    frame += payload;
    return writeAll(fd, frame.data(), frame.size());
}

Read readFrame(int fd, char *type, std::string *payload)
{
    char header[4];
    const ssize_t got = readAll(fd, header, sizeof header);
    if (got == 0)
        return Read::End;
    if (got != ssize_t(sizeof header))
        return Read::Broken;
    const uint32_t length = getBigEndian(header);
    if (length > kMaxFrame)
        return Read::TooLarge;
    if (length == 0)
        return Read::Broken;
    std::string body(length, '\0');
    if (readAll(fd, &body[0], length) != ssize_t(length))
        return Read::Broken;
    *type = body[0];
    payload->assign(body, 1, std::string::npos);
    return Read::Frame;
}

std::string encodeRun(const std::string &tool, const std::vector<std::string> &args)
{
    std::string payload = tool;
    payload += '\0';
    for (const std::string &arg : args) {
        payload += arg;
        payload += '\0';
    }
    return payload;
}

bool decodeRun(const std::string &payload, std::string *tool, std::vector<std::string> *args)
{
    if (payload.empty() || payload.back() != '\0')
        return false;
    std::vector<std::string> parts;
    for (size_t start = 0; start < payload.size();) {
        const size_t end = payload.find('\0', start);
        parts.push_back(payload.substr(start, end - start));
        start = end + 1;
    }
    *tool = parts.front();
    args->assign(parts.begin() + 1, parts.end());
    return true;
}

std::string encodeStatus(int32_t status)
{
    std::string payload(4, '\0');
    putBigEndian(&payload[0], uint32_t(status));
    return payload;
}

bool decodeStatus(const std::string &payload, int32_t *status)
{
    if (payload.size() != 4)
        return false;
    *status = int32_t(getBigEndian(payload.data()));
    return true;
}

} // namespace authproto
