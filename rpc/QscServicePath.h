// Where a server start finds the service.
#pragma once

// The path of the library, as for dlopen.
const char* QscServicePath();
