"""One run of the tavtransform Python module for Processing: progress and cancel through the
feedback, failures as QgsProcessingException with the message the command line prints."""
import contextlib
import os
import sys
import threading

from qgis.core import QgsProcessingException

CANCELLED = -1010  # the plug-in's code for a cancelled run

# The plug-in keeps one static FFT factor list per process: runs from parallel tasks take turns.
_one_run_at_a_time = threading.Lock()


def _module():
    """The tavtransform module of the same installation as this plug-in, else the one on sys.path."""
    try:
        from . import installed_paths  # written by cmake --install
        folder = os.path.normpath(os.path.join(os.path.dirname(__file__), installed_paths.PYTHON_DIR))
        if os.path.isdir(folder) and folder not in sys.path:
            sys.path.insert(0, folder)
    except ImportError:
        pass
    import tavtransform
    return tavtransform


def module_version():
    try:
        return _module().__version__
    except ImportError:
        return None


class _Progress:
    """The module's progress callable: percent to the feedback, each new message once, and False
    (cancel) as soon as the feedback is cancelled. Called on the run's own thread."""

    def __init__(self, feedback):
        self.feedback, self.message = feedback, None

    def __call__(self, percent, message):
        if message and message != self.message:
            self.message = message
            self.feedback.setProgressText(message)
        self.feedback.setProgress(percent)
        return not self.feedback.isCanceled()


@contextlib.contextmanager
def _take_turn(feedback):
    while not _one_run_at_a_time.acquire(timeout=0.1):
        if feedback.isCanceled():
            raise QgsProcessingException("the run was cancelled")
    try:
        yield
    finally:
        _one_run_at_a_time.release()


class _Kept:
    """Puts files the run only reads back as they were if a failed run removed or changed them (the
    plug-in removes a failed mnf-inverse's statistics file; the command line puts it back too)."""

    def __init__(self, paths):
        self.files = {}
        for path in paths:
            try:
                with open(path, "rb") as f:
                    self.files[path] = (f.read(), os.stat(path).st_mode)
            except OSError:
                pass

    def restore(self):
        for path, (data, mode) in self.files.items():
            try:
                with open(path, "rb") as f:
                    if f.read() == data:
                        continue
            except OSError:
                pass
            with open(path, "wb") as f:
                f.write(data)
            os.chmod(path, mode)


def run(command, input_path, output_path, options, feedback, read_only=()):
    """tavtransform.run with the feedback; the output path, or the eigenvalue rows of pca -stats-only.
    `read_only`: the files besides INPUT that the run reads."""
    try:
        module = _module()
    except ImportError as e:
        raise QgsProcessingException("the tavtransform Python module is not installed (%s)" % e)
    if feedback.isCanceled():
        raise QgsProcessingException("the run was cancelled")
    with _take_turn(feedback):
        kept = _Kept(read_only)
        try:
            return module.run(command, input_path, output_path, progress=_Progress(feedback), **options)
        except module.Error as e:
            kept.restore()
            if e.code == CANCELLED or isinstance(e, getattr(module, "Cancelled", ())):
                raise QgsProcessingException("the run was cancelled; the partial output was removed")
            raise QgsProcessingException("ERROR %d: %s" % (e.code, e.text))
        except ValueError as e:  # the command line's usage errors
            raise QgsProcessingException(str(e))
