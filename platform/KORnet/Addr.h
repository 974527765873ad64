// Everything of the network toolkit: addresses, masks, mail addresses and dates.
#pragma once

#include <KORnet/Date.h>
#include <KORnet/EmailAddr.h>
#include <KORnet/IPAddr.h>
#include <KORnet/IPv4Mask.h>
