"""A session that connects to its server, and one that is plugged to it, while calls of the system fail."""
import socket
import unittest

import torture_case


def knows(name):
    try:
        return bool(socket.gethostbyname(name))
    except OSError:
        return False


class Upstream(torture_case.TortureCase):
    def test_session_that_says_it_is_connected_is(self):
        self.torture("connects_to_the_first", "connects_to_the_third", "connects_to_a_number", "connects_by_a_walk",
                     "connects_to_a_path")

    @unittest.skipUnless(knows("localhost"), "a system without a list of hosts")
    def test_session_that_says_it_is_connected_to_a_name_is(self):
        self.torture("connects_to_a_name")


class Listener(torture_case.TortureCase):
    def test_client_that_is_said_to_be_accepted_speaks(self):
        self.torture("accepts")


class Plug(torture_case.TortureCase):
    def test_plug_hands_on_the_beginning_of_what_came_and_nothing_else(self):
        self.torture("plugs", silent=True)


if __name__ == "__main__":
    unittest.main()
