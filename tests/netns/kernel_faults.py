"""Breaking single things in the lab's router: forwarding entries, and sockets that another process holds."""

import json
import os
import socket
import struct

import laboratory
import namespaces

MRT6_INIT, MRT6_DONE, MRT6_ADD_MFC, MRT6_DEL_MFC = 200, 201, 204, 205  # linux/mroute6.h
MCAST_JOIN_GROUP, MCAST_LEAVE_GROUP = 42, 45  # linux/in.h
SYS_PIDFD_OPEN, SYS_PIDFD_GETFD = 434, 438
SOCKADDR_STORAGE_BYTES = 128
IF_SET_WORDS = 8


def socket_address(address):
    return struct.pack("=HHI16sI", socket.AF_INET6, 0, 0, socket.inet_pton(socket.AF_INET6, address), 0)


def routing_socket(lab):
    with namespaces.entered(lab.nodes["router"]):
        return socket.socket(socket.AF_INET6, socket.SOCK_RAW, socket.IPPROTO_ICMPV6)


def change_entry(lab, request, group, parent=0, outputs=()):
    """Adds, changes or deletes the entry (::, group). Whoever may administrate the network may do that."""
    words = [0] * IF_SET_WORDS
    for output in outputs:
        words[output // 32] |= 1 << output % 32
    entry = socket_address("::") + socket_address(group) + struct.pack(f"=HH{IF_SET_WORDS}I", parent, 0, *words)
    with routing_socket(lab) as control:
        control.setsockopt(socket.IPPROTO_IPV6, request, entry)


def index_of(lab, interface):
    return json.loads(laboratory.run(lab, "router", "ip", "-j", "link", "show", "dev", interface))[0]["ifindex"]


def sockets_of(program):
    """Duplicates of the sockets that a program has open: what is asked of them is asked of the program's own."""
    # ctypes calls each with the arguments that the kernel takes (pidfd_open(2), pidfd_getfd(2)).
    process = namespaces.libc.syscall(SYS_PIDFD_OPEN, program.pid, 0)
    namespaces.checked(process)
    held = []
    for name in os.listdir(f"/proc/{program.pid}/fd"):
        if os.readlink(f"/proc/{program.pid}/fd/{name}").startswith("socket:"):
            copy = namespaces.libc.syscall(SYS_PIDFD_GETFD, process, int(name), 0)
            namespaces.checked(copy)
            held.append(socket.socket(fileno=copy))
    os.close(process)
    return held


def ask_sockets_of(program, option, value):
    """Makes the request on the first of the program's sockets that takes it."""
    held = sockets_of(program)
    try:
        for each in held:
            try:
                each.setsockopt(socket.IPPROTO_IPV6, option, value)
                return
            except OSError:
                continue
        raise AssertionError(f"no socket of {program.log.name} takes request {option}")
    finally:
        for each in held:
            each.close()


def change_membership(lab, program, option, interface, group):
    address = socket_address(group).ljust(SOCKADDR_STORAGE_BYTES, b"\0")
    ask_sockets_of(program, option, struct.pack("=I4x", index_of(lab, interface)) + address)


def give_up_routing(program):
    ask_sockets_of(program, MRT6_DONE, struct.pack("=i", 0))
