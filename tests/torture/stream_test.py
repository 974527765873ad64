"""A connected stream while calls of the system fail."""
import unittest

import torture_case


class Input(torture_case.TortureCase):
    def test_what_comes_is_taken_whole_or_the_failure_is_told(self):
        self.torture("take_lines", "take_blocks", "take_at_once", "take_receives")


class Output(torture_case.TortureCase):
    def test_what_goes_arrives_whole_or_the_failure_is_told(self):
        self.torture("put_at_once", "put_by_send", "put_pieces", "put_without_waiting")

    def test_line_whose_wait_fails_counts_as_sent(self):
        """A vectored send that cannot wait gives 0 and the bytes that went. PutLine keeps the count to itself: whoever
        has to know looks at the connection, or sends by SendData and compares."""
        self.torture("put_lines", told=["poll .*: false: output"])


if __name__ == "__main__":
    unittest.main()
