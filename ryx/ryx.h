// Everything of the SDK that an agent uses. What its tests use as well is in ryx/testing.h.
#ifndef RYX_RYX_H
#define RYX_RYX_H

#include <ryx/agent.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>
#include <ryx/bfd.h>
#include <ryx/decap_group.h>
#include <ryx/eth.h>
#include <ryx/eth_intf.h>
#include <ryx/eth_lag_intf.h>
#include <ryx/eth_phy_intf.h>
#include <ryx/event_loop.h>
#include <ryx/fd.h>
#include <ryx/fib.h>
#include <ryx/get_agent_process_name.h>
#include <ryx/host.h>
#include <ryx/intf.h>
#include <ryx/intf_mgr_helper.h>
#include <ryx/ip.h>
#include <ryx/ip_intf.h>
#include <ryx/ip_route.h>
#include <ryx/iter_base.h>
#include <ryx/mount.h>
#include <ryx/mpls.h>
#include <ryx/mpls_route.h>
#include <ryx/mpls_vrf_label.h>
#include <ryx/neighbor_table.h>
#include <ryx/nexthop_group.h>
#include <ryx/panic.h>
#include <ryx/print_profiles.h>
#include <ryx/sdk.h>
#include <ryx/sdk_scoped_lock.h>
#include <ryx/subintf.h>
#include <ryx/timer.h>
#include <ryx/tracing.h>
#include <ryx/vrf.h>

#endif  // RYX_RYX_H
