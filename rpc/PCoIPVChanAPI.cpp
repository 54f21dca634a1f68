#include "rpc/PCoIPVChanAPI.h"

#include <algorithm>
#include <iterator>

#include "logging/Log.h"

PCoIPVChanAPI::~PCoIPVChanAPI() {
    LOG(Info, "sessionID(%d)", static_cast<int>(m_sessionId));
}

int PCoIPVChanAPI::Reserved0() {
    return 0;
}
void PCoIPVChanAPI::Reserved1() {}
void PCoIPVChanAPI::Reserved2() {}
void PCoIPVChanAPI::Reserved3() {}

void PCoIPVChanAPI::Init(PCoIPVChanInterface* api) {
    LOG(Info, "api(0x%p)", static_cast<void*>(api));
    if (api) m_interface = *api;
}

void PCoIPVChanAPI::InitEx(DWORD sessionId, PCoIPVChanInterfaceEx* api) {
    LOG(Info, "sessionID(%d)  api(0x%p)", static_cast<int>(sessionId), static_cast<void*>(api));
    if (!api) return;
    m_hasInterfaceEx = true;
    m_interfaceEx = *api;
    m_sessionId = sessionId;
}

void PCoIPVChanAPI::Reset() {
    LOG(Info, "sessionID(%d)", static_cast<int>(m_sessionId));
    m_sessionId = kNoSession;
    std::fill(std::begin(m_reserved), std::end(m_reserved), 0);
    m_hasInterfaceEx = false;
    m_interface = {};
    m_interfaceEx = {};
    m_reserved3 = 0;
}
