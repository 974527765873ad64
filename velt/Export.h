// VELT_API marks what libvelt.so shows to host daemons; all else is hidden.
#pragma once
#define VELT_API __attribute__((visibility("default")))
