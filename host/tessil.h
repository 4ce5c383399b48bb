// Everything a plug-in needs from the host.
#pragma once

#include "host/cim.h"
#include "host/cim_value.h"
#include "host/plugin.h"
#include "host/status.h"
