#include "standin/client/EmbeddingClient.h"

#include <dlfcn.h>

#include <atomic>
#include <chrono>

#include "plugin/UsbRedirectionPlugin.h"

namespace {

// The plug-in keeps some registries for the life of the process, so each unloading costs what they hold. A sanitizer
// calls that a leak and can't name code that is gone: under one the library stays.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kLoadMode = RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE;
#else
constexpr int kLoadMode = RTLD_NOW | RTLD_LOCAL;
#endif

// The one client of the process. Release and acquire, so that a callback sees a whole client.
std::atomic<EmbeddingClient*> gClient{nullptr};

}  // namespace

struct EmbeddingClient::Exports {
    void* library = nullptr;
    decltype(&QSCUsbRedirectionPlugin_Init) init = nullptr;
    decltype(&QSCUsbRedirectionPlugin_Exit) exit = nullptr;
    QSCUsbRedirectionPluginDispatch dispatch = {};
};

EmbeddingClient::EmbeddingClient() : plugin(std::make_unique<Exports>()) {}

std::unique_ptr<EmbeddingClient> EmbeddingClient::Open(const std::string& pluginPath, std::string* error) {
    std::unique_ptr<EmbeddingClient> client(new EmbeddingClient);
    if (!client->Load(pluginPath, error)) return nullptr;
    EmbeddingClient* none = nullptr;
    if (!gClient.compare_exchange_strong(none, client.get(), std::memory_order_acq_rel)) {
        *error = "there is an embedding client in this process already";
        return nullptr;
    }
    return client;
}

EmbeddingClient::~EmbeddingClient() {
    EmbeddingClient* self = this;
    gClient.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
    if (plugin->library) dlclose(plugin->library);
}

bool EmbeddingClient::Load(const std::string& pluginPath, std::string* error) {
    plugin->library = dlopen(pluginPath.c_str(), kLoadMode);
    if (!plugin->library) {
        *error = std::string("cannot load the plug-in: ") + dlerror();
        return false;
    }
    plugin->init = reinterpret_cast<decltype(plugin->init)>(dlsym(plugin->library, "QSCUsbRedirectionPlugin_Init"));
    plugin->exit = reinterpret_cast<decltype(plugin->exit)>(dlsym(plugin->library, "QSCUsbRedirectionPlugin_Exit"));
    if (plugin->init && plugin->exit) return true;
    *error = pluginPath + " is not the plug-in: it lacks the client's exports";
    return false;
}

bool EmbeddingClient::Init() {
    plugin->dispatch = {};
    return plugin->init(OnUsbdInitDone, OnUsbdDevicesFilterStatus, &plugin->dispatch) == TRUE &&
           plugin->dispatch.version == 1 && plugin->dispatch.startUsbd;
}

bool EmbeddingClient::Exit() {
    return plugin->exit() == TRUE;
}

bool EmbeddingClient::StartUsbd() {
    if (!plugin->dispatch.startUsbd) return false;
    plugin->dispatch.startUsbd();
    return true;
}

std::vector<std::string> EmbeddingClient::InitReports() const {
    const qscservice::Lock guard(lock);
    return initReports;
}

std::vector<bool> EmbeddingClient::FilterReports() const {
    const qscservice::Lock guard(lock);
    return filterReports;
}

bool EmbeddingClient::WaitForInitReports(size_t count, DWORD timeoutMS) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMS);
    const qscservice::Lock guard(lock);
    while (initReports.size() < count) {
        if (reported.wait_until(lock, deadline) == std::cv_status::timeout) return initReports.size() >= count;
    }
    return true;
}

Bool EmbeddingClient::OnUsbdInitDone(const char* pid) {
    EmbeddingClient* client = gClient.load(std::memory_order_acquire);
    if (!client || !pid) return FALSE;
    {
        const qscservice::Lock guard(client->lock);
        client->initReports.emplace_back(pid);
    }
    client->reported.notify_all();
    return TRUE;
}

Bool EmbeddingClient::OnUsbdDevicesFilterStatus(Bool enabled) {
    EmbeddingClient* client = gClient.load(std::memory_order_acquire);
    if (!client) return FALSE;
    const qscservice::Lock guard(client->lock);
    client->filterReports.push_back(enabled == TRUE);
    return TRUE;
}
