// Owners of system handles.
#pragma once

#include <cstdio>

// The handle value that stands for none is null.
struct InvalidNullValue {
    template <typename Handle>
    static constexpr Handle Value() {
        return nullptr;
    }
};

// How a Holder gives its handle back, by the number in its type; 0 closes a standard file stream.
template <int kind>
struct HandleCloser;

template <>
struct HandleCloser<0> {
    static void Close(std::FILE* stream) { std::fclose(stream); }
};

// Owns one handle, and closes it when it goes or takes another one.
template <typename Handle, typename Invalid, int closer>
class Holder {
public:
    explicit Holder(Handle owned = Invalid::template Value<Handle>()) : handle(owned) {}
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;
    virtual ~Holder() { Reset(); }

    // Closes what is held and takes over owned.
    void Reset(Handle owned = Invalid::template Value<Handle>()) {
        if (IsValid()) HandleCloser<closer>::Close(handle);
        handle = owned;
    }

    bool IsValid() const { return handle != Invalid::template Value<Handle>(); }
    Handle Get() const { return handle; }

private:
    Handle handle;
};

using FileHolder = Holder<std::FILE*, InvalidNullValue, 0>;
