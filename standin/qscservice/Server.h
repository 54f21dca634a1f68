// The server side of the service, as a process that loads the library reaches it: through the exports
// QSCService_ServerInit and its like, and the server table. A single server is one listening channel, with one
// connection at a time; a multi-server makes a channel with a delivery thread for each connection.
//
//   SetServerOptions({.address = "unix:"});         // ahead of the start
//   manager.MultiServerInit(session);               // the framework calls the exports
//   ... = ServerAddress();                          // what clients dial
//
// A connection of a multi-server, from its start to its end, on its delivery thread:
//   hello of both ends        QscOnServerConnected(type, id); FALSE takes the connection down
//   StartServer(id)           QscOnServerInstanceCreated(id, &instance), in which the instance registers its channel
//   sink StopServer(id)            QscOnServerInstanceDestroyed(instance, id); the connection stays, and can be started
//   again connection down           the channel's own callbacks, QscOnServerDisconnected(id),
//   QscOnServerInstanceDestroyed
// A client that returns after a fall is a new connection with an id of its own; only the counts go on.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "rpc/QSCServiceTables.h"
#include "standin/qscservice/ServiceChannel.h"

namespace qscservice {

// The byte in which the id of QSCService_ServerInterface differs from the others, for the query operation.
inline constexpr uint8_t kServerInterfaceVersion = 0x0D;

struct ServerOptions {
    std::string address = "unix:";  // as for ServiceChannel::Listen; "fd:<number>" serves a connected socket, which is
                                    // closed in any case
    ChannelOptions channel{.role = Role::Server};  // a multi-server delivers on threads of its own in any case
};

// For the starts to come.
void SetServerOptions(const ServerOptions& options);

// Of the latest start that still runs; empty if none does, and for a connected socket.
std::string ServerAddress();

// The channel of a server connection, null for an unknown id. A null id stands for the current channel.
std::shared_ptr<ServiceChannel> FindServerChannel(QscServerID id);

// The counts of all servers that run, over all their connections, past and present; those with one peer if its end
// (see ChannelAccount) is given.
std::map<uint32_t, CommandCount> ServerCounts(uint64_t peerEnd = 0);

// The words of QSCService_ServerInterface; the query operation gives them for kServerInterfaceVersion. A null id stands
// for the current channel, which is a client's only one.
extern const QSCService_ServerInterface kServerTable;

}  // namespace qscservice
