// The device's USB vendor and product ids, fixed at build time.
#pragma once

namespace ferrolt {

#ifndef FERROLT_VENDOR_ID
#define FERROLT_VENDOR_ID 0x1209
#endif
#ifndef FERROLT_PRODUCT_ID
#define FERROLT_PRODUCT_ID 0x0001
#endif

inline constexpr int kVendorId = FERROLT_VENDOR_ID;
inline constexpr int kProductId = FERROLT_PRODUCT_ID;
// The device's vendor interface.
inline constexpr int kVendorInterface = 4;

}  // namespace ferrolt
