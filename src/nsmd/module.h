// The module number under which nsmd logs.
#pragma once

constexpr int NSMD_MODULE = 1;
