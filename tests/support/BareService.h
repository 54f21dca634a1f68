// The real, loaded plug-in between a service whose tables do next to nothing and a daemon that only remembers its
// callbacks: what is left is the plug-in's own cost and conduct. A program that links this defines the daemon's
// functions, which take the place of the daemon library's. One per process.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "plugin/Usbd.h"
#include "rpc/QSCServiceTables.h"

class BareService {
public:
    // The table operations that one message passes through, recorded while recording is on.
    enum class Op {
        CreateContext,
        SetCommand,
        VariantInit,
        VariantFromBlob,
        VariantFromUInt32,
        AppendParam,
        SetOption,
        GetId,
        Invoke,
        VariantClear,
        DestroyContext
    };

    // Loads the plug-in and takes it to ready, with the daemon started and its callbacks registered. Returns an empty
    // text, or what failed.
    static std::string Start(const std::string& pluginPath);

    // Destroys the instance, ends and unloads the plug-in.
    static void Stop();

    static bool PostFast(size_t size, const unsigned char* data);

    // The same sequence of table calls that one fast post makes, without the plug-in.
    static bool PostFastByHand(size_t size, const unsigned char* data);

    static void Record(bool on);
    static std::vector<Op> Recorded();

    // The bytes that the latest recorded AppendParam was given.
    static const void* LastBlobData();
    static uint32_t LastBlobSize();
};
