// An object whose every virtual slot records its own number: calling a
// method of a hand-declared COM interface through it shows the slot the
// declaration put that method in.
#pragma once

#include <windows.h>

#include <array>
#include <utility>

namespace kxtest {

struct Probe {
    void** table;
    int hit;
};

template <int N>
HRESULT STDMETHODCALLTYPE Slot(Probe* self) {
    self->hit = N;
    return S_OK;
}

template <size_t... I>
std::array<void*, sizeof...(I)> SlotTable(std::index_sequence<I...>) {
    return {reinterpret_cast<void*>(&Slot<static_cast<int>(I)>)...};
}

}  // namespace kxtest
