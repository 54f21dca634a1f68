// The control socket of the agent: lines in, one line of JSON out for each.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <thread>

#include "standin/qscservice/Transport.h"

// Serves any number of connections on one thread of its own. answer gives the line for a request, empty for one that it
// doesn't know, which closes the connection.
class AgentControl {
public:
    using Answer = std::function<std::string(const std::string& request)>;

    explicit AgentControl(Answer answer) : answer(std::move(answer)) {}
    ~AgentControl();  // ends the thread and removes the socket
    AgentControl(const AgentControl&) = delete;
    AgentControl& operator=(const AgentControl&) = delete;

    // Listens at a path of the file system. False with one line in error.
    bool Listen(const std::string& path, std::string* error);

private:
    void Run();
    bool Serve(int fd, std::string* unread) const;

    const Answer answer;
    std::string path;  // empty until it listens
    qscservice::Fd listener;
    qscservice::Fd stop;
    std::thread thread;
};
