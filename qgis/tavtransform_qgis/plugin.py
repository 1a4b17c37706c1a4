"""Registers the Processing provider; the plug-in has no window or toolbar of its own."""
from qgis.core import QgsApplication

from .provider import TavTransformProvider


class TavTransformPlugin:
    def __init__(self, iface):
        self.iface = iface
        self.provider = None

    def initProcessing(self):  # noqa: N802
        if self.provider is None:
            self.provider = TavTransformProvider()
            QgsApplication.processingRegistry().addProvider(self.provider)

    def initGui(self):  # noqa: N802
        self.initProcessing()

    def unload(self):
        if self.provider is not None:
            QgsApplication.processingRegistry().removeProvider(self.provider)
            self.provider = None
