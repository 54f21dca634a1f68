#include "standin/usbd/AsyncExchanges.h"

#include <atomic>

#include "standin/usbd/UsbdReplay.h"

namespace usbd {

AsyncMessage AsyncExchanges::Open(const std::string& device) {
    static std::atomic<uint64_t> lastId{0};  // relaxed: only uniqueness counts
    AsyncMessage message;
    message.id = "usb-" + std::to_string(lastId.fetch_add(1, std::memory_order_relaxed) + 1);
    message.content = device + " message " + message.id;
    auto content = std::make_unique<std::string>(message.content);
    message.context = content.get();
    LockScope scope(lock);
    open.emplace(message.context, std::move(content));
    return message;
}

std::string AsyncExchanges::Close(void* context, std::string_view response) {
    LockScope scope(lock);
    const auto found = open.find(context);
    if (found == open.end()) return "unknown context";
    const std::string& content = *found->second;
    if (!response.starts_with(kUsbResponsePrefix) || response.substr(sizeof(kUsbResponsePrefix) - 1) != content)
        return std::string(response.substr(0, 80)).append(" in response to ").append(content);
    open.erase(found);
    return {};
}

}  // namespace usbd
