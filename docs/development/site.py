"""What `bin/package site` adds to MkDocs: the files of the whole checkout in their places, so that the links between
the documents work as they do on a code host, the programs among them as pages, the reference, and its names in the
search. MkDocs calls the functions whose names begin with on_ (mkdocs.yml, hooks)."""

import functools
import html
import itertools
import json
import logging
import os
import posixpath
import re
import xml.etree.ElementTree
from pathlib import Path

from mkdocs.exceptions import PluginError
from mkdocs.structure.files import File, Files

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("VORN_BUILD_DIR", ROOT / "build"))
DOCUMENTS = ["*.md", "docs/**/*.md", "{examples,fuzz,test,tools}/**/*.md"]
PROGRAMS = ["LICENSE", "examples/**/*.rb", "examples/**/*.py", "examples/**/*.cc", "examples/**/*.h",
            "tools/wireshark/vorn.lua"]
STATIC = ["docs/**/*.svg", "docs/development/*.css"]
LANGUAGES = {".rb": "ruby", ".py": "python", ".cc": "cpp", ".h": "cpp", ".lua": "lua"}

log = logging.getLogger("mkdocs.site")
names = {}  # the page of each class and header, by the name that documents use
error_texts = []  # entries of the search


def matching(patterns):
    for pattern in patterns:
        folders, rest = re.fullmatch(r"(?:\{(.*)\}/)?(.*)", pattern).groups()
        for prefix in folders.split(",") if folders else [""]:
            yield from sorted((ROOT / prefix).glob(rest))


class Program(File):
    """A source that has a page of its own."""

    def is_documentation_page(self):
        return True

    def _get_dest_path(self, use_directory_urls):
        return self.src_uri + ".html"


def on_files(files, config):
    def file(kind, path, base):
        return kind(path.relative_to(base).as_posix(), str(base), config.site_dir, config.use_directory_urls)

    if not (BUILD / "reference/xml/index.xml").exists():
        raise PluginError(f"no reference in {BUILD}: bin/package site makes it")
    for found in reference_entries():
        # The two languages share names, and a document on C++ names headers.
        names.setdefault(found["name"], found["location"])
    theme = [file for file in files if not Path(file.abs_src_path).is_relative_to(config.docs_dir)]
    reference = [path for path in sorted((BUILD / "reference").glob("[!x]*/**/*")) if path.is_file()]
    return Files(
        theme
        + [file(File, path, ROOT) for path in matching(DOCUMENTS + STATIC)]
        + [file(Program, path, ROOT) for path in matching(PROGRAMS)]
        + [file(File, path, BUILD) for path in reference if path.suffix not in (".map", ".md5", ".rid")]
    )


def on_nav(nav, config, files):
    named = {page.file.src_uri for page in nav.pages}
    for file in files.documentation_pages():
        if file.src_uri not in named and not isinstance(file, Program):
            log.warning("mkdocs.yml does not name %s", file.src_uri)


def on_page_read_source(page, config):
    if isinstance(page.file, Program):
        source = Path(page.file.abs_src_path).read_text(encoding="utf-8")
        return f"# {page.file.src_uri}\n\n~~~~{LANGUAGES.get(Path(page.file.src_uri).suffix, 'text')}\n{source}~~~~\n"


def on_page_content(content, page, config, files):
    """Paths of files that are in the site, and names of classes, lead there, if they stand in code."""

    def link(match):
        text = html.unescape(match[1])
        folder = posixpath.dirname(page.file.src_uri)
        places = [text, posixpath.normpath(posixpath.join(folder, text))]
        if text.startswith("build/reference/"):
            places = [text[len("build/"):] + "index.html"]
        found = next((files.get_file_from_path(place) for place in places if place in files), None)
        target = found.url if found else names.get(text)
        if not target or found is page.file:
            return match[0]
        return f'<a href="{posixpath.relpath(target, posixpath.dirname(page.url) or ".")}">{match[0]}</a>'

    # MkDocs takes a name without a dot for no file.
    content = re.sub(r'href="((?:\.\./)*LICENSE)"', r'href="\1.html"', content)
    before, heading, texts = content.partition('<h2 id="every-error-text">')
    row = re.compile(r"<tr>\s*<td><code>(.*?)</code></td>(.*?)</tr>", re.DOTALL)
    content = before + heading + row.sub(functools.partial(error_row, page), texts)
    return re.sub(r"<code>([\w./:-]+)</code>(?!</a>)", link, content)


def error_row(page, match):
    """Gives the row of an error text an anchor, so that a search for the text leads there."""
    text = html.unescape(match[1])
    anchor = "error-" + re.sub(r"\W+", "-", text.lower()).strip("-")
    meaning = html.unescape(re.sub("<[^>]+>", " ", match[2]))
    error_texts.append(entry(page.url, anchor, f"{text} (error)", " ".join(meaning.split())))
    return match[0].replace("<tr>", f'<tr id="{anchor}">', 1)


def reference_entries():
    """Yields what the search finds in the reference: an entry for each class and header, and for each member."""
    # RDoc's own index: name, owner, path, arguments, first paragraph.
    script = (BUILD / "reference/ruby/js/search_index.js").read_text(encoding="utf-8")
    for name, owner, path, arguments, text in json.loads(script[script.index("{"):])["index"]["info"]:
        text = " ".join(html.unescape(re.sub("<[^>]+>", "", text)).split())
        page, _, anchor = f"reference/ruby/{path}".partition("#")
        if anchor:
            joint = "." if "method-c-" in anchor else "#"
            yield entry(page, anchor, f"{name} ({owner}, Ruby)", f"{owner}{joint}{name}{arguments}: {text}")
        else:
            full = f"{owner}::{name}" if owner else name
            yield entry(page, "", f"{full} (Ruby)", text, full)

    for path in sorted((BUILD / "reference/xml").glob("*.xml")):
        for compound in xml.etree.ElementTree.parse(path).getroot().findall("compounddef"):
            name, kind = compound.findtext("compoundname"), compound.get("kind")
            full = compound.find("location").get("file") if kind == "file" else name
            page = f"reference/native/{compound.get('id')}.html"
            # What is private has no page.
            if kind not in ("class", "struct", "namespace", "file") or not (BUILD / page).exists():
                continue
            places = (BUILD / page).read_text(encoding="utf-8")
            yield entry(page, "", f"{full} (C++)", words(compound.find("briefdescription")),
                        None if kind == "namespace" else full)
            for member in compound.iterfind("sectiondef/memberdef"):
                # A header's functions are with their namespace, and some members have no text but their class's.
                anchor = member.get("id").rpartition("_1")[2]
                if kind == "file" and member.get("kind") != "define" or f'id="{anchor}"' not in places:
                    continue
                method = member.findtext("name")
                yield entry(page, anchor,
                            f"{method} ({full}, C++)",
                            f"{name}::{method}{member.findtext('argsstring') or ''}: "
                            f"{words(member.find('briefdescription'))}")


def entry(page, anchor, title, text, name=None):
    return {"location": f"{page}#{anchor}" if anchor else page, "title": title, "text": text, "name": name}


def words(element):
    return " ".join("".join(element.itertext()).split())


def on_post_build(config):
    site = Path(config.site_dir)
    index = site / "search/search_index.json"
    content = json.loads(index.read_text(encoding="utf-8"))
    # Programs are found through the documents about them.
    program = re.compile(r"LICENSE|.*\.(rb|py|cc|h|lua)\.html")
    content["docs"] = [doc for doc in content["docs"] if not program.match(doc["location"])]
    found = {}
    for each in itertools.chain(error_texts, reference_entries()):
        del each["name"]
        found.setdefault(each["location"].partition("#")[0], []).append(each)
    for page, entries in found.items():
        if entries[0]["location"] == page:
            # As MkDocs does for its pages: the first entry has the text of all, the next one the page's own.
            everything = " ".join(f"{each['title']} {each['text']}" for each in entries)
            entries = [{**entries[0], "text": everything}, {**entries[0], "location": f"{page}#top"}] + entries[1:]
        content["docs"] += entries
    index.write_text(json.dumps(content, separators=(",", ":")), encoding="utf-8")

    # The reference is made before the site: documents are only named there, and no page leads back. Of members that
    # they leave out, RDoc and Doxygen keep the links; these lead to the page then.
    pages = {path: path.read_text(encoding="utf-8") for path in site.glob("reference/*/**/*.html")}
    places = {path: set(re.findall(r'(?:id|name)="([^"]+)"', text)) for path, text in pages.items()}
    for path, text in pages.items():

        def document(match):
            return f'<a href="{os.path.relpath(site / match[1], path.parent)}.html">{match[0]}</a>'

        def existing(match):
            target = Path(os.path.normpath(path.parent / match[1])) if match[1] else path
            return match[0] if match[2] in places.get(target, [match[2]]) else f'href="{match[1] or path.name}"'

        up = os.path.relpath(site, path.parent)
        head = (f'<meta name="viewport" content="width=device-width, initial-scale=1">'
                f'<link rel="icon" href="{up}/assets/images/favicon.png">'
                f'<link rel="stylesheet" href="{up}/docs/development/reference.css">')
        home = f'<p class="home"><a href="{up}/docs/reference.html">{config.site_name}</a></p>'
        text = re.sub(r"(</head>\s*)?<body[^>]*>", lambda match: head + match[0] + home, text, 1)
        text = re.sub(r"(?<![\w/\">])(docs/[\w/-]+)\.md\b", document, text)
        text = re.sub(r'href="([^":#]*)#([^"]+)"', existing, text)
        path.write_text(text, encoding="utf-8")
