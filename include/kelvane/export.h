#pragma once

/// Marks what the shared library gives out. Whatever of it has no such mark cannot be seen from outside.
#define KELVANE_EXPORT __attribute__((visibility("default")))
