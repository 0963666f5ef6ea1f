#include "inventory/route_dump.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// Attributes of one route message, or of one next hop.
struct RouteAttrs {
  const nlattr* oif = nullptr;
  const nlattr* gateway = nullptr;
  const nlattr* table = nullptr;
  const nlattr* multipath = nullptr;
};

int collectAttr(const nlattr* attr, void* data) {
  auto* a = static_cast<RouteAttrs*>(data);
  switch (mnl_attr_get_type(attr)) {
    case RTA_OIF:
    case RTA_GATEWAY:
    case RTA_TABLE:
      if (mnl_attr_validate(attr, MNL_TYPE_U32) < 0) return MNL_CB_ERROR;
      break;
    default:
      break;
  }
  switch (mnl_attr_get_type(attr)) {
    case RTA_OIF: a->oif = attr; break;
    case RTA_GATEWAY: a->gateway = attr; break;
    case RTA_TABLE: a->table = attr; break;
    case RTA_MULTIPATH: a->multipath = attr; break;
    default: break;
  }
  return MNL_CB_OK;
}

std::uint32_t gatewayOf(const RouteAttrs& a) {
  return a.gateway != nullptr ? ntohl(mnl_attr_get_u32(a.gateway)) : 0;
}

// RTA_MULTIPATH holds rtnexthop records, each followed by its own attributes.
int collectNextHops(const nlattr* multipath, std::vector<DefaultRoute>& out) {
  const auto* p = static_cast<const unsigned char*>(mnl_attr_get_payload(multipath));
  std::size_t left = mnl_attr_get_payload_len(multipath);
  while (left >= sizeof(rtnexthop)) {
    rtnexthop nh;
    std::memcpy(&nh, p, sizeof nh);
    if (nh.rtnh_len < sizeof(rtnexthop) || nh.rtnh_len > left) return MNL_CB_ERROR;
    RouteAttrs a;
    if (mnl_attr_parse_payload(p + sizeof nh, nh.rtnh_len - sizeof nh, collectAttr, &a) < 0)
      return MNL_CB_ERROR;
    out.push_back({nh.rtnh_ifindex, gatewayOf(a)});
    const std::size_t step = std::min<std::size_t>(RTNH_ALIGN(nh.rtnh_len), left);
    p += step;
    left -= step;
  }
  return MNL_CB_OK;
}

int collectRoute(const nlmsghdr* nlh, void* data) {
  auto& out = *static_cast<std::vector<DefaultRoute>*>(data);
  if (nlh->nlmsg_type != RTM_NEWROUTE) return MNL_CB_OK;
  if (mnl_nlmsg_get_payload_len(nlh) < sizeof(rtmsg)) {
    errno = EBADMSG;
    return MNL_CB_ERROR;
  }
  rtmsg rtm;
  std::memcpy(&rtm, mnl_nlmsg_get_payload(nlh), sizeof rtm);
  if (rtm.rtm_family != AF_INET || rtm.rtm_dst_len != 0 || rtm.rtm_type != RTN_UNICAST)
    return MNL_CB_OK;

  RouteAttrs a;
  if (mnl_attr_parse(nlh, sizeof(rtmsg), collectAttr, &a) < 0) {
    errno = EBADMSG;
    return MNL_CB_ERROR;
  }
  // rtm_table is 8 bits wide; RTA_TABLE carries the full id when present.
  const std::uint32_t table = a.table != nullptr ? mnl_attr_get_u32(a.table) : rtm.rtm_table;
  if (table != RT_TABLE_MAIN) return MNL_CB_OK;

  if (a.oif != nullptr) {
    out.push_back({static_cast<int>(mnl_attr_get_u32(a.oif)), gatewayOf(a)});
  } else if (a.multipath != nullptr && collectNextHops(a.multipath, out) != MNL_CB_OK) {
    errno = EBADMSG;
    return MNL_CB_ERROR;
  }
  return MNL_CB_OK;
}

// Every message must lie inside what was received: libmnl takes a length
// field of 2^31 or more for a negative one and reads far past the buffer.
bool wellFramed(const void* buf, std::size_t len) {
  const auto* p = static_cast<const unsigned char*>(buf);
  while (len >= sizeof(nlmsghdr)) {
    nlmsghdr h;
    std::memcpy(&h, p, sizeof h);
    // libmnl walks a message's attributes up to its aligned end, so that
    // end, not the length field, must lie inside what was received.
    const std::size_t step = (std::size_t{h.nlmsg_len} + NLMSG_ALIGNTO - 1) & ~std::size_t{3};
    if (h.nlmsg_len < sizeof(nlmsghdr) || step > len) return false;
    p += step;
    len -= step;
  }
  return true;
}

}  // namespace

route_dump::Status route_dump::parse(const void* buf, std::size_t len, unsigned seq,
                                     unsigned portid, std::vector<DefaultRoute>& out) {
  if (!wellFramed(buf, len)) {
    errno = EBADMSG;
    return Status::Error;
  }
  const int ret = mnl_cb_run(buf, len, seq, portid, collectRoute, &out);
  if (ret == MNL_CB_ERROR) return Status::Error;
  if (ret == MNL_CB_STOP) return Status::Done;
  return Status::More;
}
