// A copy of the PCoIP virtual channel interface of one session.
#pragma once

#include <cstdint>

#include "runtime/Types.h"

// The two interfaces as opaque blocks; what is in them is the session's matter.
struct PCoIPVChanInterface {
    uint8_t bytes[108];
};
struct PCoIPVChanInterfaceEx {
    uint8_t bytes[112];
};

class PCoIPVChanAPI {
public:
    PCoIPVChanAPI() = default;
    virtual ~PCoIPVChanAPI();

    virtual int Reserved0();  // 0
    virtual void Reserved1();

    // Copy the interface. The extended form belongs to a session.
    virtual void Init(PCoIPVChanInterface* api);
    virtual void InitEx(DWORD sessionId, PCoIPVChanInterfaceEx* api);

    // Back to the state after construction.
    virtual void Reset();

    virtual void Reserved2();
    virtual void Reserved3();

    DWORD GetSessionId() const { return m_sessionId; }
    bool HasInterfaceEx() const { return m_hasInterfaceEx; }
    const PCoIPVChanInterface& GetInterface() const { return m_interface; }
    const PCoIPVChanInterfaceEx& GetInterfaceEx() const { return m_interfaceEx; }

private:
    static constexpr DWORD kNoSession = static_cast<DWORD>(-1);

    DWORD m_sessionId = kNoSession;
    uintptr_t m_reserved[3]{};
    bool m_hasInterfaceEx = false;
    PCoIPVChanInterface m_interface{};
    PCoIPVChanInterfaceEx m_interfaceEx{};
    uintptr_t m_reserved3 = 0;
};
