// Where the parts of a build or an installation lie, found from the running program.
#pragma once

#include <string>

// The file of the running program.
std::string ProgramPath();

// The folder that holds bin, lib and share, without a slash at its end.
std::string InstallationFolder();

inline std::string PluginPath() {
    return InstallationFolder() + "/lib/vchan_plugins/libusbRedirectionClient.so";
}
inline std::string AgentPath() {
    return InstallationFolder() + "/bin/usb-agent";
}
inline std::string SampleCapturePath() {
    return InstallationFolder() + "/share/sample.pcap";
}
