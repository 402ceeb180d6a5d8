// Symbol visibility for the framework libraries: everything is hidden unless marked.
#pragma once

#define ZUN_EXPORT __attribute__((visibility("default")))
