"""A Processing algorithm built from one row of the command table and its option rows."""
import html
import os

from qgis.core import (QgsProcessingAlgorithm, QgsProcessingException, QgsProcessingFeedback,
                       QgsProcessingOutputString,
                       QgsProcessingParameterBand, QgsProcessingParameterBoolean, QgsProcessingParameterEnum,
                       QgsProcessingParameterFile, QgsProcessingParameterFileDestination,
                       QgsProcessingParameterNumber, QgsProcessingParameterRasterDestination,
                       QgsProcessingParameterRasterLayer, QgsProcessingParameterString,
                       QgsRasterFileWriter)

from . import runner
from .tables import command, options_of

STATS_FILTER = "Statistics files (*.sta);;All files (*)"


def _choice(o):
    return QgsProcessingParameterEnum(o.name, o.label, options=[label for _, label in o.choices],
                                      defaultValue=[value for value, _ in o.choices].index(o.default))


# kind -> (the parameter for an option row, its value as the module's keyword value; None leaves it out)
KINDS = {
    "choice": (_choice, lambda alg, p, c, o: o.choices[alg.parameterAsEnum(p, o.name, c)][0]),
    "flag": (lambda o: QgsProcessingParameterBoolean(o.name, o.label, defaultValue=o.default),
             lambda alg, p, c, o: alg.parameterAsBoolean(p, o.name, c) or None),
    # A flag whose default is on: its value is always passed, so unticking it reaches the run.
    "switch": (lambda o: QgsProcessingParameterBoolean(o.name, o.label, defaultValue=o.default),
               lambda alg, p, c, o: alg.parameterAsBoolean(p, o.name, c)),
    "count": (lambda o: QgsProcessingParameterNumber(o.name, o.label, QgsProcessingParameterNumber.Integer,
                                                     defaultValue=o.default, minValue=0),
              lambda alg, p, c, o: alg.parameterAsInt(p, o.name, c) or None),
    "bands": (lambda o: QgsProcessingParameterBand(o.name, o.label, parentLayerParameterName="INPUT",
                                                   optional=True, allowMultiple=True),
              lambda alg, p, c, o: alg.parameterAsInts(p, o.name, c) or None),
    "stats_out": (lambda o: QgsProcessingParameterFileDestination(o.name, o.label, STATS_FILTER),
                  lambda alg, p, c, o: alg.parameterAsFileOutput(p, o.name, c)),
    "stats_in": (lambda o: QgsProcessingParameterFile(o.name, o.label, fileFilter=STATS_FILTER),
                 lambda alg, p, c, o: alg.parameterAsFile(p, o.name, c)),
    "csv_in": (lambda o: QgsProcessingParameterFile(o.name, o.label, fileFilter="CSV files (*.csv);;All files (*)",
                                                    optional=True),
               lambda alg, p, c, o: alg.parameterAsFile(p, o.name, c) or None),
    # GDAL creation options as Processing's GDAL tools take them: NAME=VALUE entries joined by '|'.
    "creation": (lambda o: QgsProcessingParameterString(o.name, o.label, optional=True),
                 lambda alg, p, c, o: [e.strip() for e in alg.parameterAsString(p, o.name, c).split("|") if e.strip()]
                 or None),
    "text": (lambda o: QgsProcessingParameterString(o.name, o.label, optional=True),
             lambda alg, p, c, o: alg.parameterAsString(p, o.name, c).strip() or None),
    "value": (lambda o: QgsProcessingParameterNumber(o.name, o.label, QgsProcessingParameterNumber.Double,
                                                     optional=True),
              lambda alg, p, c, o: None if p.get(o.name) in (None, "") else alg.parameterAsDouble(p, o.name, c)),
    "png_out": (lambda o: QgsProcessingParameterFileDestination(o.name, o.label, "PNG files (*.png)",
                                                                optional=True, createByDefault=False),
                lambda alg, p, c, o: alg.parameterAsFileOutput(p, o.name, c) or None),
}

EIGEN_HEADER = ("component", "eigenvalue", "percent", "cumulative")


def statistics_over(rows):
    """"statistics over N of M pixels" where masked pixels were left out of the statistics, else None."""
    return getattr(rows, "statistics_over", None)


def eigen_text(rows):
    """The table as the command line prints it, with its pixel count line where it prints one."""
    lines = ["%-10s %16s %14s %14s" % EIGEN_HEADER]
    lines += ["%-10d %16.6f %14.4f %14.4f" % tuple(row) for row in rows]
    lines += [statistics_over(rows)] if statistics_over(rows) else []
    return "\n".join(lines) + "\n"


def eigen_html(rows, source):
    cells = lambda tag, values: "<tr>" + "".join("<%s>%s</%s>" % (tag, v, tag) for v in values) + "</tr>\n"
    body = cells("th", EIGEN_HEADER) + "".join(
        cells("td", ("%d" % r[0], "%.6f" % r[1], "%.4f %%" % r[2], "%.4f %%" % r[3])) for r in rows)
    over = "<p>%s</p>\n" % html.escape(statistics_over(rows)) if statistics_over(rows) else ""
    return ("<html><head><meta charset=\"utf-8\"><title>Eigenvalues</title></head><body>\n"
            "<h3>Principal components of %s</h3>\n<table border=\"1\" cellpadding=\"3\">\n%s</table>\n%s"
            "</body></html>\n" % (html.escape(source), body, over))


class TavTransformAlgorithm(QgsProcessingAlgorithm):
    def __init__(self, name):
        super().__init__()
        self.cmd = command(name if isinstance(name, str) else name.name)
        self.options = options_of(self.cmd.cli)

    def createInstance(self):  # noqa: N802
        return TavTransformAlgorithm(self.cmd.name)

    def name(self):
        return self.cmd.name

    def displayName(self):  # noqa: N802
        return self.cmd.title

    def group(self):
        return self.cmd.group

    def groupId(self):  # noqa: N802
        return self.cmd.group.lower().replace(" ", "_")

    def statistics_only(self):
        return any(o.keyword == "stats_only" for o in self.options)

    def shortHelpString(self):  # noqa: N802
        lines = ["<p>%s</p>" % self.cmd.help, "<ul>"]
        lines += ["<li><b>%s</b>: %s</li>" % (o.label, o.help) for o in self.options]
        lines += ["</ul>", "<p>Cancel stops the run at its next step and removes the partial output.</p>"]
        return "\n".join(lines)

    def initAlgorithm(self, config=None):  # noqa: N802
        self.addParameter(QgsProcessingParameterRasterLayer("INPUT", "Input raster"))
        for o in self.options:
            self.addParameter(KINDS[o.kind][0](o))
        # Statistics only writes no raster, so the output may then be skipped.
        self.addParameter(QgsProcessingParameterRasterDestination("OUTPUT", "Output raster",
                                                                  optional=self.statistics_only()))
        if self.statistics_only():
            self.addParameter(QgsProcessingParameterFileDestination(
                "EIGENVALUES", "Eigenvalue table", "HTML files (*.html)", optional=True))
            self.addOutput(QgsProcessingOutputString("EIGENVALUE_TABLE", "Eigenvalue table (text)"))

    def processAlgorithm(self, parameters, context, feedback):  # noqa: N802
        feedback = feedback or QgsProcessingFeedback()  # a caller may pass none
        layer = self.parameterAsRasterLayer(parameters, "INPUT", context)
        if layer is None or layer.providerType() != "gdal":
            raise QgsProcessingException("the input must be a raster that GDAL reads")
        values = {o.keyword: KINDS[o.kind][1](self, parameters, context, o) for o in self.options}
        keywords = {k: v for k, v in values.items() if v is not None}
        output = self.parameterAsOutputLayer(parameters, "OUTPUT", context)
        if keywords.get("stats_only"):
            return self._statistics_only(layer.source(), output, keywords, parameters, context, feedback)
        if not output:
            raise QgsProcessingException("an output raster is needed unless only the statistics are asked for")
        keywords["of"] = QgsRasterFileWriter.driverForExtension(os.path.splitext(output)[1]) or "GTiff"
        try:
            runner.run(self.cmd.cli, layer.source(), output, keywords, feedback,
                       read_only=[keywords[o.keyword] for o in self.options if o.kind == "stats_in"])
        except QgsProcessingException:
            self._forget(context, output)
            raise
        results = {"OUTPUT": output}
        results.update({o.name: keywords[o.keyword] for o in self.options
                        if o.kind.endswith("_out") and o.keyword in keywords})
        return results

    def _statistics_only(self, source, output, keywords, parameters, context, feedback):
        self._forget(context, output)  # no raster is written
        rows = runner.run(self.cmd.cli, source, None, keywords, feedback)
        text = eigen_text(rows)
        feedback.pushInfo(text)
        results = {"STATISTICS": keywords["stats"], "EIGENVALUE_TABLE": text}
        page = self.parameterAsFileOutput(parameters, "EIGENVALUES", context)
        if page:
            with open(page, "w", encoding="utf-8") as f:
                f.write(eigen_html(rows, source))
            results["EIGENVALUES"] = page
        return results

    @staticmethod
    def _forget(context, output):
        """No layer to load where the run left no file."""
        if output and context.willLoadLayerOnCompletion(output):
            layers = context.layersToLoadOnCompletion()
            del layers[output]
            context.setLayersToLoadOnCompletion(layers)
