"""A spooled mail that is sent while calls of the system fail."""
import unittest

import torture_case


class Mail(torture_case.TortureCase):
    def test_mail_in_memory_is_sent_whole_or_the_failure_is_told(self):
        self.torture("sends_a_small_mail")

    def test_mail_whose_file_cannot_be_read_ends_as_one_that_is_over(self):
        """SendMailStream gives 0 where the spooled mail gives no more lines, for whatever reason. A sender that has to
        know compares what went out with the size of the mail before it ends the transaction."""
        self.torture("sends_a_large_mail", told=["^(read|place) .*: false: mail"])


if __name__ == "__main__":
    unittest.main()
