// Feeds arbitrary text frames to the emulator's reading of a client's frames: the kind and the
// parsed request agree, nothing throws or crashes, and a request written out again reads back
// the same.

#include "FuzzCheck.h"
#include "ServerClient/Common/Json.h"
#include "emulator/Frames.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using kel::emulator::FrameKind;
  using kel::fuzz::check;
  const auto frame = kel::fuzz::text(data, size);
  const auto kind = kel::emulator::classifyClientFrame(frame);
  const auto request = kel::emulator::parseRequestFrame(frame);
  check(request.has_value() == (kind == FrameKind::request));
  if (kind == FrameKind::auth) check(frame.starts_with("AUTH "));
  if (!request) return 0;
  check(frame.front() == '2');
  const nlohmann::json written = {{"id", request->id},
                                  {"path", request->path},
                                  {"method", request->method},
                                  {"body", request->body}};
  const auto text = kel::dumpJson(written);
  check(text.has_value());
  const auto again = kel::emulator::parseRequestFrame("2" + *text);
  check(again.has_value() && again->id == request->id && again->path == request->path &&
        again->method == request->method && again->body == request->body);
  return 0;
}
