"""The Processing provider `tavtransform`: one algorithm per row of the command table."""
from qgis.core import QgsProcessingProvider

from .algorithm import TavTransformAlgorithm
from .tables import COMMANDS
from .runner import module_version


class TavTransformProvider(QgsProcessingProvider):
    def id(self):
        return "tavtransform"

    def name(self):
        return "TavTransform"

    def longName(self):  # noqa: N802
        return "TavTransform %s" % (module_version() or "(the tavtransform Python module is missing)")

    def versionInfo(self):  # noqa: N802
        return module_version() or ""

    def loadAlgorithms(self):  # noqa: N802
        for command in COMMANDS:
            self.addAlgorithm(TavTransformAlgorithm(command))
