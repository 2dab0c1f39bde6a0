#pragma once

#include <QtGlobal>

// The HTTP method of a request. Any other value of the 32 bits sends nothing.
enum NBHttpMethod : qint32 { GET = 0, POST = 1, PUT = 2, DELETE = 3 };
