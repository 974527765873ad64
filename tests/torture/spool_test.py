"""An object of the spool while calls of the system fail."""
import unittest

import torture_case


class Object(torture_case.TortureCase):
    def test_what_was_written_is_read_back_or_the_failure_is_told(self):
        self.torture("reads", "reads_lines", "reads_blocks", "reads_what_a_vector_wrote", "reads_the_second_object",
                     "writes_in_the_middle")

    def test_reader_that_trickles_gets_what_was_written_or_is_told(self):
        self.torture("trickles", "trickles_from_a_place")

    def test_object_that_is_cut_or_grown_has_its_length_or_the_failure_is_told(self):
        self.torture("cuts", "grows")

    def test_copy_is_whole_or_there_is_none(self):
        self.torture("copies_memory", "copies_disk", "goes_on_behind_a_copy")

    def test_object_goes_whole_to_another_stream_or_the_failure_is_told(self):
        self.torture("goes_to_a_stream", "comes_from_a_stream")

    def test_file_is_taken_whole_or_the_failure_is_told(self):
        self.torture("takes_a_small_file", "takes_a_large_file", "adopts_a_file", "reopens")

    def test_message_with_new_headers_is_whole_or_there_is_none(self):
        self.torture("rewrites_headers", "rewrites_headers_in_memory")

    def test_dump_after_a_crash_never_fails_whatever_came_of_it(self):
        """It is the last that a process does: whoever reads the dump judges it by what is there."""
        self.torture("dumps", told=["^(open|write|close) .*: false"], silent=True)


if __name__ == "__main__":
    unittest.main()
