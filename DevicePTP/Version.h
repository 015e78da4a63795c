// SPDX-License-Identifier: MIT
#pragma once
// The engine's version, for a host that wants to show or check it.

/// The version of the engine library the program runs with, such as
/// "0.1.0": that of the shared library loaded, not of the headers built
/// against. A static string; any thread may call it.
const char* qkcamVersion();
