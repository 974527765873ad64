"""Look-ups at a name server that answers wrongly, too much, too late, or exactly as much as there is room for."""
import own_namespace

own_namespace.enter()

import unittest  # noqa: E402

import lookup_case  # noqa: E402
from lookup_case import AGAIN, MALFORMED, NO_DATA, TOO_LONG, UNKNOWN  # noqa: E402
from scripted_server import (A, CNAME, MX, OWNER, PTR, TXT, UDP_LIMIT, ScriptedServer, address, mx, name, pointer,  # noqa: E402
                             record)

GOOD = [mx(10, name("mx.test"))]
BESIDE = [address(name("mx.test"), "192.0.2.5")]


class ScriptedCase(lookup_case.LookupCase):
    def setUp(self):
        super().setUp()
        self.server = ScriptedServer()
        self.addCleanup(self.server.close)

    def says(self, answer, text="example.test"):
        self.server.says(text, answer)

    def code(self, answer):
        """The code of an MX look-up, which gives no address when it is not 0."""
        self.says(answer)
        code, found = self.mx("example.test")
        self.assertTrue(code == "0" or found == [])
        return code

    @property
    def asked(self):
        return self.server.asked["example.test"]


class Sizes(ScriptedCase):
    def ask_for(self, size):
        self.says(lambda query: query.message(GOOD, BESIDE, size=size))
        return (*self.mx("example.test"), self.asked)

    def test_up_to_the_first_buffer_are_fetched_once(self):
        for size in (100, UDP_LIMIT - 1, UDP_LIMIT, UDP_LIMIT + 1, 1022, 1023, 1024):
            self.assertEqual(self.ask_for(size), ("0", ["192.0.2.5"], 1), size)

    def test_up_to_the_limit_are_fetched_twice(self):
        for size in (1025, 1026, 2048, 4096, 8190, 8191, 8192):
            self.assertEqual(self.ask_for(size), ("0", ["192.0.2.5"], 2), size)

    def test_above_the_limit_are_not_asked_for_again(self):
        for size in (8193, 8194, 16384, 65535):
            self.assertEqual(self.ask_for(size), (TOO_LONG, [], 1), size)

    def test_that_grow_between_the_two_queries_are_too_long(self):
        for second in (1026, 3001, 8192, 8193):
            first = 1025 if second < 3000 else 3000
            self.assertEqual(self.code(lambda query, first=first, second=second: query.message(
                GOOD, BESIDE, size=first if query.number == 1 else second)), TOO_LONG, second)

    def test_that_shrink_between_the_two_queries_are_good(self):
        for second in (100, 1023, 1024, 1025, 2999, 3000):
            self.says(lambda query, second=second: query.message(GOOD, BESIDE, size=3000 if query.number == 1 else second))
            self.assertEqual(self.mx("example.test"), ("0", ["192.0.2.5"]), second)

    def test_of_which_the_second_never_comes_are_to_be_tried_again(self):
        self.assertEqual(self.code(lambda query: query.message(GOOD, size=3000) if query.number == 1 else None), AGAIN)
        self.assertEqual(self.code(lambda query: query.message(GOOD, size=3000) if query.number == 1
                                   else query.message(code=3)), UNKNOWN)

    def test_that_the_length_in_front_does_not_keep_are_to_be_tried_again(self):
        def shorter(query):
            whole = query.message(GOOD, size=700)
            return (900, whole) if query.tcp else whole
        self.assertEqual(self.code(shorter), AGAIN)


class Answers(ScriptedCase):
    def test_of_every_kind_have_their_code(self):
        for code, expected in ((0, NO_DATA), (1, AGAIN), (2, AGAIN), (3, UNKNOWN), (4, AGAIN), (5, AGAIN), (9, AGAIN)):
            self.assertEqual(self.code(lambda query, code=code: query.message(code=code)), expected, code)

    def test_that_never_come_are_to_be_tried_again(self):
        self.assertEqual(self.code(lambda query: None), AGAIN)

    def test_to_somebody_else_are_not_taken(self):
        self.assertEqual(self.code(lambda query: b"\xff\xff" + query.message(GOOD)[2:]), AGAIN)
        self.assertEqual(self.code(lambda query: query.message(GOOD).replace(b"\7example", b"\7exemple", 1)), AGAIN)

    def test_of_half_a_header_are_not_taken(self):
        for length in (0, 1, 8, 11):
            self.assertEqual(self.code(lambda query, length=length: query.message(GOOD)[:length] or None), AGAIN, length)

    def test_that_are_cut_off_everywhere_are_asked_for_by_tcp(self):
        def only_by_tcp(query):
            whole = query.message(GOOD, BESIDE)
            return whole if query.tcp else whole[:2] + b"\x83" + whole[3:]  # marked as cut off
        self.assertEqual(self.code(only_by_tcp), "0")

    def test_with_bytes_behind_the_last_section_are_malformed(self):
        for tail in (b"\0", b"junk", b"\0" * 11):
            self.assertEqual(self.code(lambda query, tail=tail: query.message(GOOD, BESIDE, tail=tail)), MALFORMED)

    def test_that_are_cut_anywhere_behind_the_question_are_malformed(self):
        whole = []
        self.says(lambda query: whole.append(query.message(GOOD, BESIDE)) or whole[-1])
        self.assertEqual(self.mx("example.test"), ("0", ["192.0.2.5"]))
        for length in range(12 + len(name("example.test")) + 4, len(whole[0])):
            self.assertEqual(self.code(lambda query, length=length: query.message(GOOD, BESIDE)[:length]), MALFORMED,
                             length)

    def test_with_counts_that_they_do_not_hold_are_malformed(self):
        for counts in ((1, 9, 0, 1), (1, 2, 0, 1), (1, 1, 1, 1), (1, 1, 0, 2), (1, 65535, 65535, 65535)):
            self.assertEqual(self.code(lambda query, counts=counts: query.message(GOOD, BESIDE, counts=counts)),
                             MALFORMED, counts)

    def test_with_data_longer_than_the_message_are_malformed(self):
        for length in (6, 200, 65535):
            self.assertEqual(self.code(lambda query, length=length: query.message(
                [OWNER + MX.to_bytes(2, "big") + b"\0\1\0\0\0\x3c" + length.to_bytes(2, "big") + b"\0\x0a\0"])),
                MALFORMED, length)

    def test_with_data_too_short_for_an_exchanger_are_malformed(self):
        for data in (b"", b"\0", b"\0\x0a"):
            self.assertEqual(self.code(lambda query, data=data: query.message([record(OWNER, MX, data)])), MALFORMED)

    def test_may_have_other_records_among_them(self):
        others = [record(OWNER, CNAME, name("other.test")), record(OWNER, TXT, b"\3abc")]
        self.says(lambda query: query.message(others + GOOD, BESIDE + [record(name("mx.test"), 28, b"\0" * 16)]))
        self.assertEqual(self.mx("example.test"), ("0", ["192.0.2.5"]))


    def test_without_an_exchanger_are_good_and_give_nothing(self):
        for records in ([record(OWNER, TXT, b"\3abc")], [record(OWNER, CNAME, name("other.test"))],
                        [address(OWNER, "192.0.2.1")]):
            self.says(lambda query, records=records: query.message(records, BESIDE))
            self.assertEqual(self.mx("example.test"), ("0", []))


class PackedNames(ScriptedCase):
    def target(self, packed, at=None):
        """The code for an exchanger of that packed name; at makes it from the place where it stands."""
        return self.code(lambda query: query.message([mx(10, at(query.next_offset + 2 + 10 + 2) if at else packed)],
                                                     BESIDE))

    def test_that_loop_are_malformed(self):
        self.assertEqual(self.target(None, pointer), MALFORMED, "to itself")
        self.assertEqual(self.target(None, lambda here: b"\1a" + pointer(here)), MALFORMED, "over a label")
        self.assertEqual(self.target(None, lambda here: pointer(here + 2) + pointer(here)), MALFORMED, "two of them")

    def test_that_point_out_of_the_message_are_malformed(self):
        for offset in (500, 0x3FFF):
            self.assertEqual(self.target(pointer(offset)), MALFORMED)

    def test_of_unknown_kinds_of_labels_are_malformed(self):
        for first in (0x40, 0x41, 0x80, 0xBF):
            self.assertEqual(self.target(bytes([first]) + b"abc\0"), MALFORMED, first)

    def test_that_are_too_long_are_malformed(self):
        longest = b"\x3f" + b"x" * 63
        self.assertEqual(self.target(longest * 3 + b"\x3d" + b"x" * 61 + b"\0"), "0", "255 bytes")
        self.assertEqual(self.target(longest * 3 + b"\x3e" + b"x" * 62 + b"\0"), MALFORMED, "256 bytes")

    def test_may_go_by_a_chain_of_pointers(self):
        def chain(query):
            start = query.next_offset
            answers = [mx(10, b"\2mx" + pointer(12 + 8))]
            place = start + 2 + 10 + 2
            for i in range(10):
                answers.append(mx(20 + i, pointer(place)))
                place = start + sum(map(len, answers)) - 2
            return query.message(answers, BESIDE)
        self.says(chain)
        self.assertEqual(self.mx("example.test"), ("0", ["192.0.2.5"]))
        self.assertEqual(self.ask("records", "example.test")[1:13], ["0/15/example.test"] + ["1/15/example.test"] * 11)

    def test_may_hold_any_byte(self):
        odd = b"\5a.;\"\x01" + b"\0"
        self.says(lambda query: query.message([mx(10, odd)], [address(odd, "192.0.2.6")]))
        self.assertEqual(self.mx("example.test"), ("0", ["192.0.2.6"]))


class Exchangers(ScriptedCase):
    def test_of_one_name_are_one_with_the_better_preference(self):
        self.says(lambda query: query.message([mx(20, name("x.test")), mx(15, name("mx.test")), mx(10, name("x.test"))],
                                              [address(name("x.test"), "192.0.2.1"), *BESIDE]))
        self.assertEqual(self.mx("example.test"), ("0", ["192.0.2.1", "192.0.2.5"]))

    def test_end_with_a_duplicate_at_the_limit(self):
        self.says(lambda query: query.message([mx(20, name("x.test")), mx(10, name("x.test")), mx(5, name("mx.test"))],
                                              [address(name("x.test"), "192.0.2.1"), *BESIDE]))
        self.assertEqual(self.mx("example.test", 1), ("0", ["192.0.2.1"]))
        self.assertEqual(self.mx("example.test", 2), ("0", ["192.0.2.5", "192.0.2.1"]))

    def test_leave_all_of_this_machines_preference_out(self):
        self.ask("exclude", "me.test")
        for targets in (("a", "me", "b"), ("me", "a", "b"), ("b", "a", "me")):
            self.says(lambda query, targets=targets: query.message(
                [mx(20 if each == "b" else 10, name(f"{each}.test")) for each in targets],
                [address(name("a.test"), "192.0.2.1"), address(name("b.test"), "192.0.2.2")]))
            self.assertEqual(self.mx("example.test"), ("0", []), targets)

    def test_that_are_better_than_this_machine_stay(self):
        self.ask("exclude", "other.test", "me.test")
        self.says(lambda query: query.message(
            [mx(30, name("c.test")), mx(10, name("b.test")), mx(20, name("me.test")), mx(10, name("a.test"))],
            [address(name(f"{each}.test"), f"192.0.2.{i}") for i, each in enumerate("abc", 1)]))
        code, found = self.mx("example.test")
        self.assertEqual((code, sorted(found)), ("0", ["192.0.2.1", "192.0.2.2"]))

    def test_are_known_by_the_case_of_their_letters(self):
        self.says(lambda query: query.message([mx(10, name("Me.test"))], [address(name("Me.test"), "192.0.2.1"),
                                                                          address(name("me.test"), "192.0.2.2")]))
        self.ask("exclude", "me.test")
        self.assertEqual(self.mx("example.test"), ("0", ["192.0.2.1"]))
        self.ask("exclude", "Me.test")
        self.assertEqual(self.mx("example.test"), ("0", []))

    def test_have_the_addresses_beside_them_in_reverse(self):
        self.says(lambda query: query.message(GOOD, [address(name("mx.test"), f"192.0.2.{i}") for i in range(1, 6)]))
        self.assertEqual(self.mx("example.test", 5, 3), ("0", ["192.0.2.5", "192.0.2.4", "192.0.2.3"]))


class Hosts(ScriptedCase):
    def addresses(self, count):
        self.says(lambda query: query.message([address(OWNER, f"10.0.{i // 256}.{i % 256}") for i in range(count)]
                                              if query.kind == A else []))
        code, *found = self.ask("a", "example.test")
        return code, len(found)

    def test_have_what_the_buffers_hold(self):
        for count in (1, 50, 150, 300):
            self.assertEqual(self.addresses(count), ("0", count))
        self.assertEqual(self.addresses(2000), (TOO_LONG, 0))

    def test_that_are_wrong_or_silent_have_none(self):
        for answer in (lambda query: None, lambda query: query.message(code=2), lambda query: query.message(code=3),
                       lambda query: query.message([record(OWNER, A, b"\1\2\3")])):
            self.says(answer)
            self.assertEqual(self.ask("a", "example.test")[1:], [])


class Names(ScriptedCase):
    ADDRESS, QUESTION = "192.0.2.9", "9.2.0.192.in-addr.arpa"

    def answers(self, target):
        self.says(lambda query: query.message([record(OWNER, PTR, target)]), self.QUESTION)

    def test_of_addresses_are_taken_letter_by_letter(self):
        self.answers(name("Alpha.TEST"))
        self.assertEqual(self.ask("reverse", self.ADDRESS), ["true", "Alpha.TEST"])
        self.assertEqual(self.ask("score", self.ADDRESS, "DOMAIN ALPHA.TEST"), ["0"])
        self.answers(name("alpha.test"))
        self.assertEqual(self.ask("score", self.ADDRESS, "DOMAIN ALPHA.TEST"), ["1"])

    def test_that_do_not_come_leave_what_was_there(self):
        for answer in (lambda query: None, lambda query: query.message(code=2), lambda query: query.message()):
            self.says(answer, self.QUESTION)
            self.assertEqual(self.ask("reverse", self.ADDRESS), ["false", "before"])

    def test_are_not_asked_for_while_that_is_forbidden(self):
        self.answers(name("alpha.test"))
        self.ask("forbid", 1)
        self.assertEqual(self.ask("reverse", self.ADDRESS), ["false", "before"])
        self.assertEqual(self.ask("score", self.ADDRESS, "DOMAIN alpha.test"), ["-1"])
        self.assertEqual(self.server.asked[self.QUESTION], 0)


if __name__ == "__main__":
    unittest.main()
