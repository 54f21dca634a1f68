// Loads a plug-in the way the remoting service does and drives its six entry points in their order.
//
//   PluginHost host;
//   std::string error;
//   host.Load(path, &error) && host.SetStartupArgs(PluginHost::EncodeStartupArgs({{key, value}, ...}), &error) &&
//       host.Init(&error);                       // the thread that calls Init is the plug-in's init thread
//   ... the embedding client's own exports through host.Symbol("QSCUsbRedirectionPlugin_Init", &error) ...
//   host.Channel().Dial(address, &error);        // before or after CreateInstance
//   host.CreateInstance(&error);
//   ...
//   host.Stop();                                 // DestroyInstance, Exit, closes the channel, unloads
//
// Each step refuses, with a clear error, what is out of order. The functions are for one thread at a time.
#pragma once

#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "rpc/QSCServiceTables.h"
#include "standin/qscservice/ServiceChannel.h"

namespace qscservice {

class PluginHost {
public:
    PluginHost();  // a client channel with threaded delivery
    explicit PluginHost(const ChannelOptions& options);
    ~PluginHost();  // Stop
    PluginHost(const PluginHost&) = delete;
    PluginHost& operator=(const PluginHost&) = delete;

    // dlopen of the path, and the six QSCService_Plugin* exports, all of which must be there.
    bool Load(const std::string& path, std::string* error);

    bool SetStartupArgs(const std::string& args, std::string* error);

    // The token, read into a buffer of size bytes; size must be at least 1.
    bool GetTokenName(int size, std::string* token, std::string* error);

    bool Init(std::string* error);
    bool CreateInstance(std::string* error);
    bool DestroyInstance(std::string* error);
    bool Exit(std::string* error);  // afterwards SetStartupArgs and Init may come again

    // Destroys the instance and exits first if need be, then dlclose. True when nothing was loaded.
    bool Unload(std::string* error);

    // All of the above in order, errors reported as lines, and Close of the channel.
    void Stop();

    // An export of the loaded plug-in, null with the error set when it is absent.
    void* Symbol(const char* name, std::string* error);

    // The channel that the plug-in's instance runs on: Dial, Interrupt, Reconnect, Counts, Poll.
    ServiceChannel& Channel() { return *m_channel; }

    // The handle that CreateInstance got from the plug-in, null without an instance.
    void* Instance() const { return m_instance; }

    // The startup string: alternating keys and values, separated by commas, each byte that is no ASCII letter or digit
    // written as a slash and two hexadecimal digits.
    static std::string EncodeStartupArgs(const std::vector<std::pair<std::string, std::string>>& args);

private:
    struct Exports {
        Bool (*SetStartupArgs)(const char*);
        Bool (*GetTokenName)(char*, int);
        Bool (*Init)(QSC_SERVICE_QUERY_INTERFACE);
        Bool (*Exit)();
        Bool (*CreateInstance)(void*, void**);
        Bool (*DestroyInstance)(void*);
    };

    bool Require(bool condition, const char* what, std::string* error) const;
    bool Result(Bool result, const char* entryPoint, std::string* error) const;

    std::shared_ptr<ServiceChannel> m_channel;
    std::string m_path;
    void* m_library = nullptr;
    Exports m_exports = {};
    bool m_initialized = false;
    bool m_hasInstance = false;
    void* m_instance = nullptr;
};

}  // namespace qscservice
