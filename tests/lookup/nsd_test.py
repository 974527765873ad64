"""Look-ups at a real name server: exchangers, addresses, names of addresses, answers of every size."""
import own_namespace

own_namespace.enter()

import unittest  # noqa: E402

import lookup_case  # noqa: E402
from lookup_case import AGAIN, NO_DATA, TOO_LONG, UNKNOWN  # noqa: E402

LONG = "x" * 20


def many_exchangers(name, count):
    """So many exchangers with one address each, the last one preferred."""
    return "\n".join(f"{name} MX {count - i} h{i:03d}-{LONG}.{name}\nh{i:03d}-{LONG}.{name} A 192.0.2.{i % 250 + 1}"
                     for i in range(count))


def many_addresses(name, count):
    return "\n".join(f"{name} A 10.1.{i // 250}.{i % 250 + 1}" for i in range(count))


EXAMPLE = "\n".join(["""
@ MX 20 b
@ MX 10 a
@ MX 30 me
@ MX 40 worse
a A 192.0.2.1
a A 192.0.2.2
b A 192.0.2.3
me A 192.0.2.4
worse A 192.0.2.5
own A 192.0.2.6
alone MX 10 me
alone MX 10 a
alone MX 20 b
nothing TXT "no address"
elsewhere MX 10 host.other.test.
elsewhere MX 20 b
dead MX 10 nowhere.other.test.
dead MX 20 a
refused MX 10 host.served-by-nobody.test.
refused MX 15 many1000
refused MX 20 a
twice MX 20 a
twice MX 10 a
twice MX 15 b
alias CNAME own
aliasmx CNAME twice
gate A 127.0.0.1
gate A 192.0.2.9
odd MX 10 o\\.dd
odd MX 20 p\\@int
local MX 10 b
local MX 20 localhost.
local MX 30 a
""", many_exchangers("mid", 30), many_exchangers("big", 120), many_exchangers("huge", 250),
    many_addresses("many60", 60), many_addresses("many250", 250), many_addresses("many1000", 1000)])

ZONES = {
    "example.test": EXAMPLE,
    "other.test": "host A 203.0.113.1\nhost A 203.0.113.2\nhost A 203.0.113.3",
    "2.0.192.in-addr.arpa": "1 PTR a.example.test.",
    "100.51.198.in-addr.arpa": "2 PTR peer.example.test.",
}


def setUpModule():
    server = lookup_case.NameServer(ZONES)
    unittest.addModuleCleanup(server.close)


class Exchangers(lookup_case.LookupCase):
    def test_come_in_the_order_of_preference_with_the_addresses_of_one_host_reversed(self):
        self.assertEqual(self.mx("example.test"),
                         ("0", ["192.0.2.2", "192.0.2.1", "192.0.2.3", "192.0.2.4", "192.0.2.5"]))

    def test_stop_at_the_limit_of_addresses(self):
        for limit in range(6):
            self.assertEqual(len(self.mx("example.test", 100, limit)[1]), limit)

    def test_stop_at_the_limit_of_exchangers(self):
        self.assertEqual(self.mx("example.test", 0), ("0", []))
        self.assertEqual(len(self.mx("big.example.test", 7)[1]), 7)

    def test_leave_this_machine_and_all_that_is_not_better_out(self):
        self.ask("exclude", "me.example.test")
        self.assertEqual(self.mx("example.test"), ("0", ["192.0.2.2", "192.0.2.1", "192.0.2.3"]))
        self.assertEqual(self.mx("alone.example.test"), ("0", []))

    def test_leave_out_what_is_always_this_machine(self):
        self.ask("initialise")
        self.assertEqual(self.mx("local.example.test"), ("0", ["192.0.2.3"]))

    def test_without_an_address_beside_them_have_all_of_them_looked_up(self):
        found = ["203.0.113.1", "203.0.113.2", "203.0.113.3"]
        code, addresses = self.mx("elsewhere.example.test", 100, 1)
        self.assertEqual((code, sorted(addresses)), ("0", found), "the limit does not cut one host's")
        code, addresses = self.mx("elsewhere.example.test")
        self.assertEqual((code, sorted(addresses[:3]), addresses[3:]), ("0", found, ["192.0.2.3"]))

    def test_that_cannot_be_looked_up_are_passed_over(self):
        for name in ("dead", "refused"):
            self.assertEqual(self.mx(f"{name}.example.test"), ("0", ["192.0.2.2", "192.0.2.1"]), name)

    def test_of_one_name_are_one_with_the_better_preference(self):
        self.assertEqual(self.mx("twice.example.test"), ("0", ["192.0.2.2", "192.0.2.1", "192.0.2.3"]))

    def test_are_found_behind_an_alias(self):
        self.assertEqual(self.mx("aliasmx.example.test")[1], ["192.0.2.2", "192.0.2.1", "192.0.2.3"])

    def test_are_none_where_there_is_no_record_of_them_or_no_such_name(self):
        self.assertEqual(self.mx("own.example.test"), (NO_DATA, []))
        self.assertEqual(self.mx("none.example.test"), (UNKNOWN, []))
        self.assertEqual(self.mx("example.nowhere"), (AGAIN, []), "nobody here answers for that")

    def test_are_there_record_by_record(self):
        code, *records = self.ask("records", "twice.example.test")
        self.assertEqual(code, "0")
        self.assertEqual(records[0], "0/15/twice.example.test")
        self.assertEqual(records.count("1/15/twice.example.test"), 3)
        self.assertIn("3/1/b.example.test", records)
        self.assertIn("2/2/example.test", records)

    def test_may_have_odd_names(self):
        self.assertEqual(self.mx("odd.example.test"), ("0", []))


class Sizes(lookup_case.LookupCase):
    def test_above_the_first_buffer_are_fetched_by_tcp(self):
        self.assertTrue(1024 < lookup_case.answer_size("mid.example.test") < 8192)
        code, addresses = self.mx("mid.example.test")
        self.assertEqual((code, addresses), ("0", [f"192.0.2.{i + 1}" for i in range(29, -1, -1)]))

    def test_below_the_limit_are_fetched_whole(self):
        self.assertTrue(6000 < lookup_case.answer_size("big.example.test") <= 8192)
        code, addresses = self.mx("big.example.test", 200, 200)
        self.assertEqual((code, len(addresses), addresses[0]), ("0", 120, "192.0.2.120"))

    def test_above_the_limit_are_refused(self):
        self.assertGreater(lookup_case.answer_size("huge.example.test"), 8192)
        self.assertEqual(self.mx("huge.example.test"), (TOO_LONG, []))


class Hosts(lookup_case.LookupCase):
    def test_have_all_their_addresses_whatever_the_limit(self):
        for name, count in (("own", 1), ("a", 2), ("many60", 60), ("many250", 250)):
            code, *addresses = self.ask("a", f"{name}.example.test")
            self.assertEqual((code, len(set(addresses))), ("0", count), name)

    def test_have_their_addresses_as_the_server_orders_them(self):
        self.assertEqual(self.ask("a", "many60.example.test")[1:], [f"10.1.0.{i + 1}" for i in range(60)])

    def test_with_more_than_the_largest_buffer_holds_are_refused(self):
        self.assertEqual(self.ask("a", "many1000.example.test"), [TOO_LONG])

    def test_are_found_by_another_name(self):
        self.assertEqual(self.ask("a", "alias.example.test"), ["0", "192.0.2.6"])

    def test_that_are_unknown_have_no_address(self):
        for name in ("none.example.test", "nothing.example.test"):
            self.assertEqual(self.ask("a", name)[1:], [])


class Names(lookup_case.LookupCase):
    def test_of_addresses_are_found(self):
        self.assertEqual(self.ask("reverse", "192.0.2.1"), ["true", "a.example.test"])
        self.assertEqual(self.ask("reverse", "127.0.0.1"), ["true", "localhost"])

    def test_that_there_are_not_leave_what_was_there(self):
        self.assertEqual(self.ask("reverse", "192.0.2.77"), ["false", "before"])
        self.assertEqual(self.ask("reverse", "203.0.113.1"), ["false", "before"])

    def names_of_a_host(self, count):
        aliases = " ".join(f"alias-{i:03d}-{LONG}" for i in range(count))
        own_namespace.write("hosts", f"192.0.2.77 first {aliases}\n")
        self.addCleanup(own_namespace.write, "hosts", own_namespace.FILES["hosts"])

    def test_that_are_too_many_for_the_first_buffer_are_none(self):
        self.names_of_a_host(30)
        self.assertEqual(self.ask("reverse", "192.0.2.77"), ["true", "first"])
        self.names_of_a_host(100)
        self.assertEqual(self.ask("reverse", "192.0.2.77"), ["false", "before"], "the larger buffers are not for them")

    def test_are_not_asked_for_while_that_is_forbidden(self):
        self.ask("forbid", 1)
        self.assertEqual(self.ask("reverse", "192.0.2.1"), ["false", "before"])
        self.assertEqual(self.ask("score", "192.0.2.1", "DOMAIN a.example.test"), ["-1"])
        self.ask("forbid", 0)
        self.assertEqual(self.ask("score", "192.0.2.1", "DOMAIN a.example.test"), ["1"])

    def test_decide_on_a_line(self):
        self.assertEqual(self.ask("score", "192.0.2.1", "DOMAIN *.EXAMPLE.test"), ["2"])
        self.assertEqual(self.ask("score", "192.0.2.1", "DOMAIN *.other.test"), ["0"])
        self.assertEqual(self.ask("score", "192.0.2.77", "DOMAIN *.example.test"), ["-1"])
        self.assertEqual(self.ask("score", "192.0.2.77", "DOMAIN *"), ["0"])

    def test_come_with_their_buffer_or_not_at_all(self):
        self.assertEqual(self.ask("byaddr", "192.0.2.1"), ["a.example.test"])
        self.assertEqual(self.ask("byaddr", "192.0.2.77"), ["null"])
        self.names_of_a_host(2)
        self.assertEqual(self.ask("byaddr", "192.0.2.77"), ["first", "alias-000-" + LONG, "alias-001-" + LONG])
        self.names_of_a_host(60)
        self.assertEqual(self.ask("byaddr", "192.0.2.77"), ["null"], "one KiB is all there is")


class ThisMachine(lookup_case.LookupCase):
    def test_has_the_far_end_of_a_point_to_point_link_among_its_addresses(self):
        self.assertEqual(self.ask("peers"), ["127.0.0.1", own_namespace.PEER])

    def test_has_the_hardware_addresses_of_its_links_but_not_that_of_loopback(self):
        found = self.ask("hardware")
        self.assertIn(own_namespace.HARDWARE.replace(":", ""), found)
        self.assertEqual(len(found), 2)

    def test_learns_its_names(self):
        self.assertEqual(self.ask("initialise"),
                         [own_namespace.GATE, "localhost", "127.0.0.1", "localhost", "0.0.0.0", "localhost",
                          "peer.example.test"])

    def test_reads_the_ports_of_services(self):
        for request, port in ((("smtp", "tcp"), 25), (("mail", "tcp"), 25), (("smtp", "udp"), -1),
                              (("alpha", "udp"), 50000 - 65536), (("70000", "tcp"), 4464), (("beta", "tcp"), -1)):
            self.assertEqual(self.ask("port", *request), [str(port)], request)


if __name__ == "__main__":
    unittest.main()
