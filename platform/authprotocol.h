#ifndef VELD_PLATFORM_AUTHPROTOCOL_H
#define VELD_PLATFORM_AUTHPROTOCOL_H

// The conversation between the installer and veld-authhelper (Linux), over a
// stream socket that is the helper's standard input and output.
//
// Every message is a frame: a 4-byte big-endian length n (1 <= n <= kMaxFrame),
// then n bytes: a type byte and its payload.
//   helper -> installer  'R'  ready: the helper runs as root and waits for requests
//   installer -> helper  'X'  run: the tool's path and its arguments, each ended by a NUL
//   helper -> installer  'O'  output: the next piece (at most 128 bytes) of the tool's standard output
//   helper -> installer  'S'  done: a 4-byte big-endian status; 0 when the tool was started
// Each 'X' is answered by any number of 'O' and then one 'S'. The helper ends
// when its input ends.

#include <cstdint>
#include <string>
#include <vector>

namespace authproto {

const uint32_t kMaxFrame = 65536;
const size_t kOutputPiece = 128;
const size_t kMaxArguments = 16;

enum FrameType : char { kReady = 'R', kRun = 'X', kOutput = 'O', kDone = 'S' };

enum class Read { Frame, End, TooLarge, Broken };

/** Writes one frame; false when the other side is gone. Never raises SIGPIPE on a socket. */
bool writeFrame(int fd, char type, const std::string &payload = std::string());

/**
 * Reads one frame. End: the stream ended cleanly before a frame; TooLarge:
 * the announced length exceeds kMaxFrame (nothing more is read); Broken: the
 * stream ended inside a frame, or a read failed.
 */
Read readFrame(int fd, char *type, std::string *payload);

std::string encodeRun(const std::string &tool, const std::vector<std::string> &args);

/** False when the payload is not a tool and its arguments, each ended by a NUL. */
bool decodeRun(const std::string &payload, std::string *tool, std::vector<std::string> *args);

std::string encodeStatus(int32_t status);
bool decodeStatus(const std::string &payload, int32_t *status);

} // namespace authproto

#endif
