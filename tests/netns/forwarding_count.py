"""How many datagrams of a group reach the router's forwarding, and how many leave it, by its own packet filter.

Neither the stream's source nor a listener has a part in the counting: whatever these hosts drop does not show here.
"""

import dataclasses
import re

import laboratory

COUNTERS = """
table ip6 forwarding_count {{
  counter arrived {{ }}
  counter forwarded {{ }}
  chain before {{
    type filter hook prerouting priority raw; policy accept;
    iifname "{upstream}" ip6 daddr {group} meta l4proto udp counter name "arrived"
  }}
  chain behind {{
    type filter hook forward priority filter; policy accept;
    oifname "{downstream}" ip6 daddr {group} meta l4proto udp counter name "forwarded"
  }}
}}
"""


@dataclasses.dataclass(frozen=True)
class Counted:
    arrived: int
    forwarded: int

    @property
    def lost(self):
        return self.arrived - self.forwarded


def start_counting(lab, group, upstream="wan0", downstream="br0"):
    (lab.router_tmp / "counters").write_text(COUNTERS.format(group=group, upstream=upstream, downstream=downstream))
    laboratory.run(lab, "router", "nft", "-f", "/tmp/counters")


def counted(lab):
    """Exact once nothing is on its way any more."""
    listed = laboratory.run(lab, "router", "nft", "list", "counters", "table", "ip6", "forwarding_count")
    found = dict(re.findall(r"counter (\w+) \{\s*packets (\d+)", listed))
    return Counted(int(found["arrived"]), int(found["forwarded"]))
