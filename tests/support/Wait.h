// Waiting in a test for something another thread does: polls a condition
// until it holds (true) or the bound has passed (false).
#pragma once

#include <chrono>
#include <functional>
#include <thread>

inline bool WaitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds bound = std::chrono::seconds(10))
{
    for (auto deadline = std::chrono::steady_clock::now() + bound; !condition();) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
