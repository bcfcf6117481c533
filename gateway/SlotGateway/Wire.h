// SPDX-License-Identifier: Apache-2.0
#pragma once

// The wire type of the blocks and acknowledgements on a route's topics (generated from
// GatewayBlock.idl), and how a sample of it is made.

#include "GatewayBlock.h"

#include <cstddef>
#include <cstdint>

namespace SlotGateway {

// A sample naming block `serial` of gateway `gateway`, over `size` bytes at `data` that it
// borrows: DDS only reads them while the sample is written, and releases nothing.
inline SlotGatewayWire_Block WireSample(std::uint64_t gateway, std::uint64_t serial,
                                        const void* data, std::size_t size) {
    SlotGatewayWire_Block sample;
    sample.gateway = gateway;
    sample.serial = serial;
    sample.data._maximum = static_cast<uint32_t>(size);
    sample.data._length = static_cast<uint32_t>(size);
    sample.data._buffer = size != 0 ? static_cast<uint8_t*>(const_cast<void*>(data)) : nullptr;
    sample.data._release = false;
    return sample;
}

}  // namespace SlotGateway
