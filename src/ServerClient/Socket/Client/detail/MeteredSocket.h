#pragma once

#include <memory>

#include "ServerClient/Client/KelMetrics.h"
#include "ServerClient/platform/Socket.h"
#include "ServerClient/platform/WebSocketConnectionDelegate.h"

namespace kel::detail {

/// `socket` as seen through a meter that counts the bytes of the text messages written through
/// it and of the messages `socket` delivers, into `metrics`. The meter takes the place of
/// `delegate` as `socket`'s delegate and hands every call on to it; when `delegate` is null,
/// only what is written is counted. Still a platform::SocketExecutor when `socket` is one.
std::shared_ptr<platform::Socket> meteredSocket(
    std::shared_ptr<platform::Socket> socket,
    const std::shared_ptr<platform::WebSocketConnectionDelegate>& delegate,
    std::shared_ptr<KelMetricsRecorder> metrics);

}  // namespace kel::detail
