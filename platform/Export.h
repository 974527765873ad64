// VELTPLATFORM_API marks what libveltplatform.so shows to others; all else is hidden.
#pragma once
#define VELTPLATFORM_API __attribute__((visibility("default")))
