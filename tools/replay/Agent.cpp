#include "tools/replay/Agent.h"

#include <unistd.h>

#include "standin/qscservice/Server.h"
#include "tools/replay/AgentManager.h"

Agent::Agent() = default;

Agent::~Agent() {
    Stop();
}

bool Agent::Start(const Options& options, std::string* error) {
    qscservice::SetServerOptions({.address = options.address});
    manager = new AgentManager(&book, options.sideChannel, [&options] {
        if (options.onListening) options.onListening(qscservice::ServerAddress());
    });
    bool started;
    if (options.single) {
        single = new AgentInstance(manager.Get(), &book);
        started = manager->ServerInit(single.Get(), options.readyTimeoutMS, false);
    } else {
        started = manager->MultiServerInit(static_cast<DWORD>(getpgid(getpid())));
    }
    if (started) return true;
    *error = options.single && options.readyTimeoutMS > 0 ? "no client was ready in time, or the service does not start"
                                                          : "the service does not start";
    single = nullptr;
    manager = nullptr;
    return false;
}

bool Agent::Stop() {
    if (!manager) return true;
    const bool stopped = single ? manager->ServerExit(single.Get())
                                : manager->MultiServerExit(static_cast<DWORD>(getpgid(getpid())), nullptr);
    single = nullptr;
    manager = nullptr;
    return stopped;
}

std::vector<SessionView> Agent::Sessions() const {
    std::vector<SessionView> views;
    if (single) {
        views.push_back(static_cast<AgentInstance&>(*single).View());
    } else if (manager) {
        for (const RCPtr<AgentInstance>& instance : manager->Instances()) views.push_back(instance->View());
    }
    return views;
}
