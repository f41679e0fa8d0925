#!/usr/bin/python3
"""An FTP server for tests that misbehaves as it is told. It listens on a free port of 127.0.0.1,
prints the port when it is ready, and ends when its standard input does: with the test, however that
ends. Each command goes to a file, one a line, as it came."""
import argparse
import os
import signal
import sys
import threading

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import DTPHandler, FTPHandler
from pyftpdlib.log import config_logging
from pyftpdlib.servers import FTPServer

parser = argparse.ArgumentParser(description=__doc__)
parser.add_argument("root", help="the directory that is served")
parser.add_argument("--commands", default="/dev/null", metavar="FILE")
parser.add_argument("--user", default="keeper")
parser.add_argument("--password", default="secret")
parser.add_argument("--answer", action="append", default=[], metavar="COMMAND=REPLY",
                    help="says this instead of doing anything; nothing where it is empty")
parser.add_argument("--silent", action="store_true", help="does not even greet")
parser.add_argument("--after", type=int, metavar="BYTES",
                    help="lets no more of a transfer through, and then ...")
parser.add_argument("--then", choices=["cut", "die", "hang"], default="cut",
                    help="... closes the transfer, ends, or does nothing any more")
given = parser.parse_args()
answers = dict(one.split("=", 1) for one in given.answer)
commands = open(given.commands, "a", buffering=1)


class Transfer(DTPHandler):
    passed = 0

    def room(self):
        return sys.maxsize if given.after is None else given.after - self.passed

    def count(self, size):
        self.passed += size
        if self.room() > 0:
            return
        if given.then == "die":
            os._exit(1)
        if given.then == "hang":
            signal.pause()
        self.cmd_channel.respond("426 Cut.")
        self.close()

    def send(self, data):
        sent = super().send(data[:self.room()])
        self.count(sent)
        return sent

    def recv(self, size):
        return super().recv(min(size, self.room()))

    def handle_read(self):
        before = self.get_transmitted_bytes()
        super().handle_read()
        self.count(self.get_transmitted_bytes() - before)

    handle_read_event = handle_read


class Session(FTPHandler):
    dtp_handler = Transfer
    use_sendfile = False
    auth_failed_timeout = 0

    def handle(self):
        if not given.silent:
            super().handle()

    def pre_process_command(self, line, cmd, arg):
        print(line, file=commands)
        if cmd not in answers:
            super().pre_process_command(line, cmd, arg)
        elif answers[cmd]:
            self.respond(answers[cmd])


def end_with_standard_input():
    sys.stdin.buffer.read()
    os._exit(0)


config_logging(level=100)
Session.authorizer = DummyAuthorizer()
Session.authorizer.add_user(given.user, given.password, given.root, perm="elradfmwMT")
Session.authorizer.add_anonymous(given.root)
server = FTPServer(("127.0.0.1", 0), Session)
threading.Thread(target=end_with_standard_input, daemon=True).start()
print(server.address[1], flush=True)
server.serve_forever()
