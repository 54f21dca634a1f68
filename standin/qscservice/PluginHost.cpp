#include "standin/qscservice/PluginHost.h"

#include <dlfcn.h>

#include <cstring>
#include <type_traits>

#include "standin/qscservice/ServiceTables.h"

namespace qscservice {

namespace {

void SetError(std::string* error, const std::string& text) {
    if (error) *error = text;
}

bool IsPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

void AppendEncoded(std::string* text, const std::string& token) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    for (const char c : token) {
        if (IsPlain(c)) {
            *text += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        *text += '/';
        *text += kDigits[byte >> 4];
        *text += kDigits[byte & 0xF];
    }
}

}  // namespace

PluginHost::PluginHost() : PluginHost(ChannelOptions{}) {}

PluginHost::PluginHost(const ChannelOptions& options) : m_channel(ServiceChannel::Create(options)) {}

PluginHost::~PluginHost() {
    Stop();
}

bool PluginHost::Load(const std::string& path, std::string* error) {
    if (!Require(!m_library, "a plug-in is loaded already", error)) return false;
    m_path = path;
    m_library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!m_library) {
        SetError(error, std::string("cannot load the plug-in: ") + dlerror());
        return false;
    }
    const auto find = [&](const char* name, auto* function) {
        *function = reinterpret_cast<std::remove_pointer_t<decltype(function)>>(Symbol(name, error));
        return *function != nullptr;
    };
    if (find("QSCService_PluginSetStartupArgs", &m_exports.SetStartupArgs) &&
        find("QSCService_PluginGetTokenName", &m_exports.GetTokenName) &&
        find("QSCService_PluginInit", &m_exports.Init) && find("QSCService_PluginExit", &m_exports.Exit) &&
        find("QSCService_PluginCreateInstance", &m_exports.CreateInstance) &&
        find("QSCService_PluginDestroyInstance", &m_exports.DestroyInstance)) {
        return true;
    }
    dlclose(m_library);
    m_library = nullptr;
    m_exports = {};
    return false;
}

bool PluginHost::SetStartupArgs(const std::string& args, std::string* error) {
    if (!Require(m_library, "no plug-in is loaded", error) ||
        !Require(!m_initialized, "startup arguments come before Init", error)) {
        return false;
    }
    return Result(m_exports.SetStartupArgs(args.c_str()), "QSCService_PluginSetStartupArgs", error);
}

bool PluginHost::GetTokenName(int size, std::string* token, std::string* error) {
    if (!Require(m_library, "no plug-in is loaded", error) ||
        !Require(size >= 1, "the token needs a buffer of at least 1 byte", error)) {
        return false;
    }
    std::vector<char> buffer(static_cast<size_t>(size), '?');
    if (!Result(m_exports.GetTokenName(buffer.data(), size), "QSCService_PluginGetTokenName", error)) return false;
    const size_t length = strnlen(buffer.data(), buffer.size());
    if (!Require(length < buffer.size(), "the plug-in did not terminate its token", error)) return false;
    token->assign(buffer.data(), length);
    return true;
}

bool PluginHost::Init(std::string* error) {
    if (!Require(m_library, "no plug-in is loaded", error) ||
        !Require(!m_initialized, "the plug-in is initialised already", error)) {
        return false;
    }
    m_channel->SetPollThread(std::this_thread::get_id());
    m_channel->MakeDefault();
    const CurrentChannel current(m_channel.get());
    m_initialized = Result(m_exports.Init(Query()), "QSCService_PluginInit", error);
    return m_initialized;
}

bool PluginHost::CreateInstance(std::string* error) {
    if (!Require(m_initialized, "the plug-in is not initialised", error) ||
        !Require(!m_hasInstance, "there is an instance already", error)) {
        return false;
    }
    const CurrentChannel current(m_channel.get());
    m_hasInstance =
        Result(m_exports.CreateInstance(m_channel->Handle(), &m_instance), "QSCService_PluginCreateInstance", error);
    if (!m_hasInstance) m_instance = nullptr;
    return m_hasInstance;
}

bool PluginHost::DestroyInstance(std::string* error) {
    if (!Require(m_hasInstance, "there is no instance", error)) return false;
    const CurrentChannel current(m_channel.get());
    m_hasInstance = false;
    return Result(m_exports.DestroyInstance(std::exchange(m_instance, nullptr)), "QSCService_PluginDestroyInstance",
                  error);
}

bool PluginHost::Exit(std::string* error) {
    if (!Require(m_initialized, "the plug-in is not initialised", error) ||
        !Require(!m_hasInstance, "the instance is to be destroyed before Exit", error)) {
        return false;
    }
    const CurrentChannel current(m_channel.get());
    m_initialized = false;
    return Result(m_exports.Exit(), "QSCService_PluginExit", error);
}

bool PluginHost::Unload(std::string* error) {
    if (!m_library) return true;
    if (m_hasInstance && !DestroyInstance(error)) return false;
    if (m_initialized && !Exit(error)) return false;
    m_exports = {};
    if (dlclose(std::exchange(m_library, nullptr)) == 0) return true;
    SetError(error, std::string("cannot unload the plug-in: ") + dlerror());
    return false;
}

// The library goes after the channel, so that no callback meets code that is gone, whatever the plug-in left behind.
void PluginHost::Stop() {
    std::string error;
    if (m_hasInstance && !DestroyInstance(&error)) ReportError(error);
    if (m_initialized && !Exit(&error)) ReportError(error);
    m_channel->Close();
    if (!Unload(&error)) ReportError(error);
}

void* PluginHost::Symbol(const char* name, std::string* error) {
    if (!Require(m_library, "no plug-in is loaded", error)) return nullptr;
    void* symbol = dlsym(m_library, name);
    if (!symbol) SetError(error, m_path + " lacks the export " + name);
    return symbol;
}

std::string PluginHost::EncodeStartupArgs(const std::vector<std::pair<std::string, std::string>>& args) {
    std::string text;
    for (const auto& [key, value] : args) {
        if (!text.empty()) text += ',';
        AppendEncoded(&text, key);
        text += ',';
        AppendEncoded(&text, value);
    }
    return text;
}

bool PluginHost::Require(bool condition, const char* what, std::string* error) const {
    if (!condition) SetError(error, what);
    return condition;
}

bool PluginHost::Result(Bool result, const char* entryPoint, std::string* error) const {
    if (result == FALSE) SetError(error, std::string(entryPoint) + " of " + m_path + " failed");
    return result != FALSE;
}

}  // namespace qscservice
