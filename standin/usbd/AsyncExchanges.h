// The asynchronous messages that await their final response, by the context word that went with them.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "standin/usbd/Lock.h"

namespace usbd {

// One asynchronous message, owned by whoever sends it: the response may come ahead of the end of the call that sends.
struct AsyncMessage {
    void* context;
    std::string id;
    std::string content;
};

class AsyncExchanges {
public:
    // Opens an exchange about device under an id that the process never uses again.
    AsyncMessage Open(const std::string& device);

    // Ends the exchange of context if it is open and the response is the one expected, else returns what is wrong.
    std::string Close(void* context, std::string_view response);

private:
    Lock lock;
    // The request's content, by its own address, which is the context word.
    std::unordered_map<void*, std::unique_ptr<std::string>> open GUARDED_BY(lock);
};

}  // namespace usbd
