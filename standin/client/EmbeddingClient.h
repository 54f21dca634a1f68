// The embedding client: the second party in the plug-in's process. It registers its two callbacks with the plug-in,
// hears from it of the daemon's start and of the filter status, and can start the daemon itself.
#pragma once

#include <condition_variable>
#include <memory>
#include <string>
#include <vector>

#include "runtime/Types.h"
#include "standin/qscservice/LockGuard.h"

// At most one per process, since the callbacks carry no context. All operations are safe on any thread.
class EmbeddingClient {
public:
    // Loads the plug-in library and looks up its exports. Null, with one line in error, if the library or an export is
    // missing or there is a client already. The library stays loaded until the client goes.
    static std::unique_ptr<EmbeddingClient> Open(const std::string& pluginPath, std::string* error);
    EmbeddingClient(const EmbeddingClient&) = delete;
    EmbeddingClient& operator=(const EmbeddingClient&) = delete;
    ~EmbeddingClient();

    // Registers the callbacks and has the dispatch record filled. False if the plug-in refuses or fills in another
    // version than 1.
    bool Init();

    // Takes the callbacks back.
    bool Exit();

    // Starts the daemon through the dispatch record; false before Init.
    bool StartUsbd();

    // What the plug-in reported, oldest first: the daemon's identity, empty for a failed start; the filter status.
    std::vector<std::string> InitReports() const;
    std::vector<bool> FilterReports() const;

    // Waits until the plug-in has reported the daemon's start that many times: once when daemon and channel are both
    // ready, and again each time that the channel comes back. False on time-out.
    bool WaitForInitReports(size_t count, DWORD timeoutMS) const;

private:
    struct Exports;
    EmbeddingClient();
    bool Load(const std::string& pluginPath, std::string* error);
    static Bool OnUsbdInitDone(const char* pid);
    static Bool OnUsbdDevicesFilterStatus(Bool enabled);

    std::unique_ptr<Exports> plugin;
    mutable qscservice::Mutex lock;  // guards initReports and filterReports
    mutable std::condition_variable_any reported;
    std::vector<std::string> initReports GUARDED_BY(lock);
    std::vector<bool> filterReports GUARDED_BY(lock);
};
