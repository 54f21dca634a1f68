// The boundary side of the stand-in for the remoting service: the query operation, which versions of its tables it
// offers, and where its own error lines go.
//
// The tables are process-wide and stateless. Their words act on handles; the words without a handle (Poll, Connect,
// GetSessionType, ...) act on the current channel: the one whose callback runs on this thread, else the one that a
// CurrentChannel scope names, else the process's default (see ServiceChannel.h).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "rpc/QSCServiceTables.h"

namespace qscservice {

// What a plug-in is given by QSCService_PluginInit.
QSC_SERVICE_QUERY_INTERFACE Query();

enum class Table { Channel, ChannelObject, ChannelContext, Variant, StreamData, Overlay, Server };

// Makes the query operation answer for the table under exactly these id bytes; an empty list takes the table away.
// Ids that are not the table's own are ignored. At start every id of every table is offered.
//
//   Channel         0B all words; 10 without Channel.v3.Poll; 06 also without SwitchToStreamData
//   ChannelObject   12 and 0F all words; 0A without CreateContextEx; 02 also without GetObjectOptions
//   ChannelContext  08, 03          StreamData  0E, 0C
//   Variant         00              Overlay     19, 18, 16, 07, 05          Server  0D
void OfferTable(Table table, const std::vector<uint8_t>& ids);
void OfferNewest(Table table);
void OfferOldest(Table table);
void OfferAllTables();

// Receives each error of the library, one line without a line end, on the thread where it happened. The default, also
// reached with an empty function, writes "qscservice: <line>" to stderr.
void SetErrorHandler(std::function<void(std::string_view)> handler);
void ReportError(const std::string& line);

}  // namespace qscservice
