#pragma once

#include <string_view>

#include "platform/messagequeue/MessageQueueServer.h"

namespace vnt {

/// A client's wish to be told when a service has delivered its data.
inline constexpr std::string_view kEnableCompletion = "enableServiceActionCompletedCallback";

/// Tells the client that all data of `service` so far is on its way before this. A client that is gone needs none.
inline void sendCompletion(ServiceChannel& channel, std::string_view service)
{
    const auto status =
        Dictionary::create({{String::create("quillon.server.services.status.complete"), String::create(service)}});
    (void)channel.sendCallback("serviceActionCompleted:", *Array::create({status}));
}

} // namespace vnt
