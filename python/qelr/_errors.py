"""The exception and warning that carry the library's statuses."""

STATUS_NAMES = {
    1: "qelWarnNothingToDo",
    6: "qelWarnDivisionByZero",
    29: "qelWarnRegionOutsidePlane",
    40: "qelWarnRegionOutsideVolume",
    -2: "internal failure of the KD-tree builder",
    -4: "qelErrNoMemory",
    -5: "qelErrUnknownAlgorithm",
    -6: "qelErrSize",
    -7: "qelErrBadArgument",
    -8: "qelErrNullPointer",
    -9: "qelErrMemoryBudget",
    -11: "qelErrParamRange",
    -14: "qelErrStep",
    -22: "qelErrInterpolation",
    -23: "qelErrFactor",
    -53: "qelErrChannels",
    -56: "qelErrSingularTransform",
}


def status_message(status, function):
    return "%s returned %s (%d)" % (function, STATUS_NAMES.get(status, "an unknown status"), status)


class QelrError(RuntimeError):
    """A call of the library failed; `.status` is its negative status."""

    def __init__(self, status, function="qelr"):
        super().__init__(status, function)  # both in args, so it pickles
        self.status = status
        self.function = function

    def __str__(self):
        return status_message(self.status, self.function)


class QelrWarning(UserWarning):
    """A call of the library returned a warning status (positive)."""
