"""What a client calls. `methods.pyi` beside it has the types of the daemon's methods (tarn/stubs.py)."""


class Methods:
    def call(self, method, /, *, deadline=None, **members):
        """Calls a method with members of its request, and returns its reply; None for a method without one."""
        return self.request(method, members, deadline)
