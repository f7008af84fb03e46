// Version of the talvern library.
#pragma once

#define TALVERN_VERSION_MAJOR 0
#define TALVERN_VERSION_MINOR 1
#define TALVERN_VERSION_PATCH 0
#define TALVERN_VERSION_STRING "0.1.0"
