// Waiting for a host-library request in a test: runs the request with a
// completion and waits (bounded) for it. The result is "" when the service
// carried the request out, else the error's kind and description (or
// "no answer" when none came in time).
#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>

#include "streamloft/Error.h"

inline std::string AwaitRequest(const std::function<void(streamloft::Completion)>& request,
                                std::chrono::milliseconds timeout = std::chrono::seconds(10))
{
    auto result = std::make_shared<std::promise<std::string>>();
    std::future<std::string> answer = result->get_future();
    request([result](const std::optional<streamloft::Error>& error) {
        result->set_value(error ? std::string(streamloft::ErrorKindName(error->kind)) + ": " + error->Describe() : "");
    });
    if (answer.wait_for(timeout) != std::future_status::ready)
        return "no answer";
    return answer.get();
}
