"""Host configurations for the daemon to read."""
from xml.sax.saxutils import escape


def volume_element(name, root, crawl=(), exclude=()):
    """A volume of the configuration, with the folders to walk (none: the whole volume) and those to leave out."""
    def paths(kind, items):
        return f"<{kind}>{''.join(f'<Path>{escape(item)}</Path>' for item in items)}</{kind}>"
    return (f"<Volume><Name>{escape(name)}</Name><Root>{escape(root)}</Root>"
            f"{paths('CrawlPaths', crawl)}{paths('ExcludePaths', exclude)}</Volume>")


def host_configuration(volume_elements, last_updated_time=1262304000, **thresholds):
    """A host configuration of the given volumes; a threshold that is not given has the daemon's default."""
    return ('<?xml version="1.0" encoding="UTF-8"?>\n<QuarrowHost><Version>1.0</Version>'
            f"<last_updated_time>{last_updated_time}</last_updated_time><quarrow_enabled>true</quarrow_enabled>"
            f"{''.join(f'<{name}>{value}</{name}>' for name, value in thresholds.items())}"
            f"<Volumes>{''.join(volume_elements)}</Volumes></QuarrowHost>\n")
