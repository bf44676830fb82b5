"""Says what holds and what does not, and remembers it for the exit code."""

import time


class Report:
    def __init__(self):
        self.failed = 0
        self.held = 0
        self.started = time.monotonic()

    @staticmethod
    def title(text):
        print(f"\n{text}", flush=True)

    def check(self, what, problems):
        """`problems`: what is wrong, as texts; nothing wrong means that it holds."""
        problems = list(problems)
        if problems:
            self.failed += 1
            print(f"  FAILED  {what}", flush=True)
            for problem in problems[:10]:
                print(f"          {problem}", flush=True)
        else:
            self.held += 1
            print(f"  ok      {what}", flush=True)

    def equal(self, what, got, wanted):
        self.check(what, [] if got == wanted else [f"{got} instead of {wanted}"])

    def finish(self):
        seconds = time.monotonic() - self.started
        print(f"\n{self.held} held, {self.failed} failed, {seconds:.0f} s", flush=True)
        return 1 if self.failed else 0
