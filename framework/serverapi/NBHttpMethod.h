#pragma once

// The HTTP method of a request; any other value sends nothing.
enum NBHttpMethod { GET = 0, POST = 1, PUT = 2, DELETE = 3 };
