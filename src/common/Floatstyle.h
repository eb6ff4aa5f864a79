// How a floating-point number is shown: general, with exponent, or fixed point.
#pragma once

#include <cstdint>

enum class TFloatFormat : int32_t { General = 0, Exponent = 1, Fixed = 2 };
