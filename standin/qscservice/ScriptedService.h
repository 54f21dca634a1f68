// The service under a test's control: the same tables and the same model of contexts, objects and requests as over a
// transport, with a peer that is the test itself. Nothing runs on its own: every callback is fired by the test, on the
// test's thread, and is over when the call returns.
//
//   ScriptedService service;                                  // is the process's default channel while it lives
//   manager.QSCPluginInit(service.Query()); manager.QSCPluginCreateInstance(service.Handle(), &instance);
//   service.BringUp();                                        // connection, channel, both objects: ready
//   service.Fail(Op::Invoke); ...                             // the next Invoke gives FALSE
//   service.Sent().back().params[0] == Value("text")          // what went out, parsed
//   service.Deliver("UsbRedirDataObj", 1, {Value(bytes)});    // OnMsgInvoke
//   service.Complete(id, {Value("id"), Value(bytes)});        // OnMsgDone;  service.Abort(id, TRUE, 7): OnMsgAbort
//   service.Count(Op::Connect)                                // what the plug-in called
//
// One ScriptedService at a time in a process.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "rpc/QSCServiceTables.h"
#include "standin/qscservice/CallScript.h"
#include "standin/qscservice/ServiceChannel.h"
#include "standin/qscservice/ServiceTables.h"
#include "standin/qscservice/Value.h"

namespace qscservice {

class ScriptedService {
public:
    explicit ScriptedService(Role role = Role::Client, QSCService_SessionType sessionType = QSC_SESSION_PCOIP);
    ~ScriptedService();  // also offers all tables again
    ScriptedService(const ScriptedService&) = delete;
    ScriptedService& operator=(const ScriptedService&) = delete;

    QSC_SERVICE_QUERY_INTERFACE Query() const { return qscservice::Query(); }
    void* Handle() const { return m_channel->Handle(); }  // for QSCService_PluginCreateInstance
    ServiceChannel& Channel() { return *m_channel; }

    // The next `times` calls of the word are refused before they do anything: FALSE, 0, or state -1 as their type has
    // it.
    void Fail(Op op, int times = 1);
    size_t Count(Op op) const;  // calls of the word, refused ones too
    void ClearCalls();

    // Callbacks with any values, through the sinks that the plug-in registered. False when there is no such sink. The
    // answers of the table words follow current (FireObjectState: state) when it is one of the known values.
    bool FireConnectionState(QSCService_ConnectionState current, QSCService_ConnectionState transition);
    bool FireConnectionState(QSCService_ConnectionState state) { return FireConnectionState(state, state); }
    bool FireChannelState(QSCService_ChannelState current, QSCService_ChannelState transition);
    bool FireChannelState(QSCService_ChannelState state) { return FireChannelState(state, state); }
    bool FirePeerObjectCreated(const char* name);
    bool FireObjectState(const std::string& name, QSCRPC_ObjectState state);

    // All the way to ready with these two object names: on a client fires the peer's creations, on a server expects the
    // plug-in to create them. False when a step found no sink or no object.
    bool BringUp(const std::string& controlName = "UsbRedirControlObj",
                 const std::string& dataName = "UsbRedirDataObj");
    // Channel DISCONNECTED, then connection DISCONNECTED; open requests are not touched.
    void BringDown();

    // Delivers a post (requestId 0) or a request to the object's sink on this thread. Returns the return values that
    // the receiver appended; the result's storage keeps them alive. False in ok when there is no such object.
    Message Deliver(const std::string& object, uint32_t command, Values params, uint32_t requestId = 0,
                    bool* ok = nullptr);

    // The messages that Invoke accepted, in order, and the open requests among them.
    std::vector<Message> Sent() const;
    void ClearSent();
    bool Complete(uint32_t requestId, Values returnValues);
    // An answer whose context carries another command number than its request.
    bool CompleteAs(uint32_t requestId, uint32_t command, Values returnValues);
    bool Abort(uint32_t requestId, Bool flag, uint32_t reason);

    // Contexts that exist now, of any channel in the process: created and neither destroyed nor consumed.
    static size_t LiveContexts();
    // Those among them that no open request of this service holds: none while no message is being made.
    size_t UnsentContexts() const { return LiveContexts() - m_channel->OpenRequests(); }

private:
    class PeerLink;

    CallScript m_script;
    std::shared_ptr<ServiceChannel> m_channel;
    std::shared_ptr<PeerLink> m_link;
};

}  // namespace qscservice
