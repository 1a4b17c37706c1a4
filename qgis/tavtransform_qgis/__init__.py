"""TavTransform for QGIS: the transforms as Processing algorithms (provider id `tavtransform`)."""


def classFactory(iface):  # noqa: N802 (QGIS's name)
    from .plugin import TavTransformPlugin
    return TavTransformPlugin(iface)
