#pragma once

#define SLOT_EXPORT __attribute__((visibility("default")))
