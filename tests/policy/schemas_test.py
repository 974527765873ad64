"""The schemas take what a gateway takes, and refuse what it refuses, as far as a schema can."""
import copy
import pathlib
import re
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

import forms

# What a schema cannot say. Each of its comments tells the administrator so.
BEYOND_A_SCHEMA = {
    "rules": r"is set twice here|span of times: it is empty|does not exist|in a circle|a document type is not allowed|"
             r"has no attribute '(xmlns|xsi):|takes no text|is not UTF-8|nothing inside",
    "identities": r"'and' or 'or' expected|(a condition|an operator|a value in quotes) expected|ends where a condition|"
                  r"without its opening|is not closed|no closing quote|a backslash|<identity> takes no text|"
                  r"<identities> takes no text|nested deeper|a document type is not allowed|"
                  r"has no attribute '(xmlns|xsi):|is not UTF-8",
    "logging": r"unknown attribute (file|facility|xmlns:|xsi:)|is a number from|more than 10000|text where|"
               r"holds nothing",
}


def inside(kind, text):
    return {"rules": f'<rules><policy name="p">{text}</policy></rules>',
            "identities": f'<identities><identity name="i">{text}</identity></identities>',
            "logging": f"<logging>{text}</logging>"}[kind]


def section(text):
    return inside("rules", f'<settings section="s">{text}</settings>')


def window(when):
    return section(f'<set name="n" when="{when}">1</set>')


DAY = '<is subject="con" op="FROM" value="127.0.0.1"/>'
TAKEN = {
    "rules": [
        "<rules/>", '<rules version="1"/>', "<!-- a --><rules><!-- b --> <?pi x?></rules>",
        '<?xml version="1.0" encoding="UTF-8"?>\n<rules>\n</rules>',
        inside("rules", ""), '<rules><policy name="content_in" base="content"/></rules>',
        '<rules><policy name="p" base=""/></rules>', '<rules><policy name="p/ü:1"/></rules>',
        inside("rules", "<actions/>"), inside("rules", "<actions><action> LOG </action><action>A B</action></actions>"),
        inside("rules", '<identity name="a"/><actions/><settings section="s"/><identity name="b"/>'),
        inside("rules", '<identity name="a" inherits="b, c d"/><identity name="b"/><identity name="c"/>'
                        '<identity name="d"/>'),
        inside("rules", '<identity name="a" inherits=""/>'),
        inside("rules", '<settings section="s"/><settings section="s"/>'),
        inside("rules", '<identity name="a"><settings section="s"><set name="n">1</set></settings></identity>'
                        '<settings section="s"><set name="n">2</set></settings>'),
        section(""), section('<set name="a b"/>'), section('<set name="n"> </set>'),
        section('<set name="n"><![CDATA[ <x> ]]></set>'), section('<set name="n">1</set><list name="m"/>'),
        section('<list name="n"><item/><item>1</item></list>'),
        section('<alert name="n"/>'), section('<alert name="n"><footer>f</footer><header/><body>b</body></alert>'),
        section("<rule/>"), section('<rule any="thing" name="" when="mon"/>'),
        section('<rule a="1"> <!-- x --> </rule>'),
        section('<set name="n">1</set><set name="n" when="mon">2</set><set name="n" when="mon">3</set>'),
        *(window(when) for when in (
            "mon", "MON", "Fri-mOn", "mon,tue,wed-fri", "sat-sat", "00:00-24:00", "23:59-00:00", "22:00-06:00",
            "08:00-12:00,13:00-18:00", "mon-fri 08:00-18:00", "  mon \t 08:00-18:00&#10;",
            "sun,sat 00:01-24:00,01:00-02:00")),
    ],
    "identities": [
        "<identities/>", '<identities version="1"/>', '<identities><identity name="a b"/></identities>',
        inside("identities", " "), inside("identities", "<!-- none -->"),
        inside("identities", 'con FROM "10.0.0.0/8" or eto IS "*@x.test"'),
        inside("identities", '<![CDATA[efrom IS "<>"]]>'), inside("identities", 'strange THING "x"'),
        inside("identities", DAY), inside("identities", f"<not>{DAY}</not>"), inside("identities", f"<and>{DAY}</and>"),
        inside("identities", f"<or>{DAY}<not><and>{DAY}{DAY}</and></not></or>"),
        inside("identities", '<is subject="x" op="y" value=""/>'),
        inside("identities", '<is subject="x" op="y" value=" "> </is>'),
    ],
    "logging": [
        "<logging/>", '<logging version="1"/>', '<logging version="01"/>', inside("logging", '<sink type="journal"/>'),
        inside("logging", '<sink type="json" file="/x"/><sink type="json"/><sink type="text"/>'),
        inside("logging", '<sink type="syslog"/><sink type="syslog" facility="local7"/>'),
        inside("logging", "<queue/><queue size='1'/><queue size='1000000' full='drop'/><queue full='block'/>"),
        inside("logging", "<limits/><limits value='16' record='1024'/><limits value='65536' record='1048576'/>"),
        inside("logging", "<events/><events default='off'><event number='0' switch='on'/>"
                          "<event number='2147483647' reason='007' switch='off'/></events>"),
    ],
}
REFUSED = {
    "rules": [
        "", "<rules>", "<rules/><rules/>", "<rules><![CDATA[ ]]></rules>", "<identities/>", "<Rules/>",
        '<rules version="2"/>', '<rules version=" 1"/>',
        '<rules strange="1"/>', "<rules>text</rules>", "<rules><strange/></rules>", '<rules xmlns="urn:x"/>',
        '<rules><policy/></rules>', '<rules><policy name=""/></rules>', '<rules><policy name="a b"/></rules>',
        '<rules><policy name="a,b"/></rules>', '<rules><policy name="a" base="b c"/></rules>',
        '<rules><policy name="a"/><policy name="a"/></rules>', inside("rules", "text"), inside("rules", "<strange/>"),
        inside("rules", "<actions/><actions/>"), inside("rules", "<actions><action/></actions>"),
        inside("rules", "<actions><action>A</action><action> A</action></actions>"),
        inside("rules", "<actions><strange/></actions>"), inside("rules", '<actions strange="1"/>'),
        inside("rules", "<actions>A</actions>"), inside("rules", '<actions><action when="mon">A</action></actions>'),
        inside("rules", "<identity/>"), inside("rules", '<identity name="a,b"/>'),
        inside("rules", '<identity name="a"/><settings section="s"/><identity name="a"/>'),
        inside("rules", '<identity name="a"/><actions/><identity name="a"/>'),
        inside("rules", '<identity name="a"><identity name="b"/></identity>'),
        inside("rules", '<identity name="a"><actions/></identity>'), inside("rules", '<identity name="a" base="b"/>'),
        inside("rules", "<settings/>"), inside("rules", '<settings section=""/>'),
        inside("rules", '<settings section="s" name="x"/>'), section("text"), section("<strange/>"), section("<set/>"),
        section('<set name=""/>'), section('<set name="n" value="1"/>'), section('<set name="n"><item/></set>'),
        section('<list name="n">1</list>'), section('<list name="n"><set name="m"/></list>'),
        section('<list name="n"><item when="mon"/></list>'), section('<list name="n"><item><item/></item></list>'),
        section('<alert name="n">x</alert>'), section('<alert name="n"><body/><body/></alert>'),
        section('<alert name="n"><strange/></alert>'), section('<alert name="n"><body x="1"/></alert>'),
        section("<alert/>"), section("<rule>x</rule>"), section("<rule><set name='n'/></rule>"),
        *(window(when) for when in (
            "", " ", "never", "mo", "mond", "mon-", "-mon", "mon-tue-wed", "mon,,tue", "mon,", "mon tue", "mon - fri",
            "mon, tue", "8:00-12:00", "08:00", "08:00-", "08:00-12:00-13:00", "08:60-09:00", "24:00-08:00",
            "08:00-24:01",
            "25:00-26:00", "08:00 - 12:00", "08:00-12:00 mon", "mon 08:00-12:00 tue", "08:00-12:00,", "mon;tue",
            "08.00-12.00", "08:00:00-09:00:00", "0８:00-09:00", "mon-fri,08:00-12:00")),
        '<rules><policy name="p"><settings section="s"><rule when="x"/></settings></policy></rules>',
    ],
    "identities": [
        "", "<identities>", "<rules/>", '<identities version="2"/>', '<identities x="1"/>',
        "<identities>x</identities>",
        "<identities><policy/></identities>", "<identities><identity/></identities>",
        '<identities><identity name=""/></identities>', '<identities><identity name="a" inherits="b"/></identities>',
        '<identities><identity name="a"/><identity name="a"/></identities>',
        inside("identities", DAY + DAY), inside("identities", "<and/>"), inside("identities", "<or/>"),
        inside("identities", "<not/>"), inside("identities", f"<not>{DAY}{DAY}</not>"),
        inside("identities", "<strange/>"), inside("identities", f'<and x="1">{DAY}</and>'),
        inside("identities", f"<and>text{DAY}</and>"), inside("identities", f"<not>{DAY}text</not>"),
        inside("identities", '<is op="y" value="z"/>'), inside("identities", '<is subject="x" value="z"/>'),
        inside("identities", '<is subject="x" op="y"/>'), inside("identities", '<is subject="" op="y" value="z"/>'),
        inside("identities", '<is subject="x" op="" value="z"/>'),
        inside("identities", '<is subject="x" op="y" value="z" when="mon"/>'),
        inside("identities", '<is subject="x" op="y" value="z">t</is>'),
        inside("identities", f'<is subject="x" op="y" value="z">{DAY}</is>'),
    ],
    "logging": [
        "", "<logging>", "<log/>", '<logging version="2"/>', '<logging version="+1"/>', '<logging x="1"/>',
        inside("logging", "text"), inside("logging", "<strange/>"), inside("logging", "<sink/>"),
        inside("logging", '<sink type=""/>'), inside("logging", '<sink type="Journal"/>'),
        inside("logging", '<sink type="json" file=""/>'), inside("logging", '<sink type="syslog" facility="kern"/>'),
        inside("logging", '<sink type="syslog" facility="local8"/>'), inside("logging", '<sink type="text">x</sink>'),
        inside("logging", '<sink type="text"><sink type="text"/></sink>'), inside("logging", '<queue size="0"/>'),
        inside("logging", '<queue size="1000001"/>'), inside("logging", '<queue size="+5"/>'),
        inside("logging", '<queue size="5k"/>'), inside("logging", '<queue size=""/>'),
        inside("logging", '<queue full="wait"/>'), inside("logging", '<queue x="1"/>'),
        inside("logging", '<limits value="15"/>'), inside("logging", '<limits value="65537"/>'),
        inside("logging", '<limits record="1023"/>'), inside("logging", '<limits record="1048577"/>'),
        inside("logging", '<limits record="-1"/>'), inside("logging", '<events default="yes"/>'),
        inside("logging", "<events>x</events>"), inside("logging", "<events><sink type='text'/></events>"),
        inside("logging", '<events><event switch="on"/></events>'),
        inside("logging", '<events><event number="1"/></events>'),
        inside("logging", '<events><event number="-1" switch="on"/></events>'),
        inside("logging", '<events><event number="2147483648" switch="on"/></events>'),
        inside("logging", '<events><event number="1" switch="On"/></events>'),
        inside("logging", '<events><event number="1" reason="x" switch="on"/></events>'),
        inside("logging", '<event number="1" switch="on"/>'),
    ],
}
# Valid, and refused by the gateway: what the schemas' comments list.
STRICTER = {
    "rules": [
        section('<set name="n">1</set><set name="n">2</set>'), section('<set name="n">1</set><list name="n"/>'),
        inside("rules", '<settings section="s"><set name="n"/></settings>'
                        '<settings section="s"><alert name="n"/></settings>'),
        window("08:00-08:00"), inside("rules", '<identity name="a" inherits="b"/>'),
        inside("rules", '<identity name="a" inherits="b"/><identity name="b" inherits="a"/>'),
        '<rules><policy name="a" base="b"/></rules>', '<rules><policy name="a" base="a"/></rules>',
        "<!DOCTYPE rules><rules/>", '<rules xmlns:x="urn:x"/>',
        '<rules xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" xsi:noNamespaceSchemaLocation="rules.xsd"/>',
        "<rules>&#32;</rules>", section("<rule><![CDATA[]]></rule>"),
        b'<?xml version="1.0" encoding="ISO-8859-1"?><rules><!-- \xe4 --></rules>',
    ],
    "identities": [
        inside("identities", "text"), inside("identities", 'con FROM "x" and'), inside("identities", 'con FROM "x'),
        inside("identities", '(con FROM "x"'), inside("identities", 'con FROM "x")'),
        inside("identities", 'con FROM "\\x"'), inside("identities", f"text{DAY}"), inside("identities", f"{DAY}text"),
        inside("identities", "<not>" * 65 + DAY + "</not>" * 65),
        inside("identities", "not " * 65 + 'con FROM "x"'), "<!DOCTYPE identities><identities/>",
        '<identities xmlns:x="urn:x"/>', "<identities>&#32;</identities>",
        b'<?xml version="1.0" encoding="ISO-8859-1"?><identities><!-- \xe4 --></identities>',
    ],
    "logging": [
        inside("logging", '<sink type="journal" file="/x"/>'), inside("logging", '<sink type="json" facility="mail"/>'),
        inside("logging", '<queue size=" 5"/>'), '<logging xmlns:x="urn:x"/>', "<logging>&#32;</logging>",
        inside("logging", "<events>" + '<event number="1" switch="on"/>' * 10001 + "</events>"),
    ],
}
# Refused, and taken by the gateway.
LOOSER = {"rules": [inside("rules", "<actions><action>A B</action><action>A  B</action></actions>")]}


class Judged(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="velt-forms-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def judge(self, kind, texts):
        """(text, the readers' judgement, the schema's judgement) of each."""
        paths = []
        for number, text in enumerate(texts):
            paths.append(self.folder / f"{kind}{number}.xml")
            paths[-1].write_bytes(text if isinstance(text, bytes) else text.encode())
        return list(zip(texts, forms.judged_by_readers(kind, paths), forms.judged_by_schema(kind, paths), strict=True))

    def check(self, table, readers, schema):
        for kind, texts in table.items():
            for text, read, valid in self.judge(kind, texts):
                with self.subTest(kind=kind, text=text[:200]):
                    self.assertEqual((read == "ok", valid == "ok"), (readers, schema), f"\n{read}\n{valid}")


class Tables(Judged):
    def test_both_take_what_is_right(self):
        self.check(TAKEN, True, True)

    def test_both_refuse_what_is_wrong(self):
        self.check(REFUSED, False, False)

    def test_what_a_schema_cannot_say_is_refused_by_the_gateway_alone(self):
        self.check(STRICTER, False, True)
        for kind, texts in STRICTER.items():
            for text, read, _ in self.judge(kind, texts):
                self.assertRegex(read, BEYOND_A_SCHEMA[kind], text[:200])

    def test_what_the_schema_alone_refuses(self):
        self.check(LOOSER, True, False)


def changes(root):
    """The tree with one thing changed, in every place and every way."""
    for place, element in enumerate(root.iter()):
        def changed(change, place=place):
            tree = copy.deepcopy(root)
            node = list(tree.iter())[place]
            parents = {child: parent for parent in tree.iter() for child in parent}
            change(node, parents.get(node))
            return ElementTree.tostring(tree, encoding="unicode")

        yield changed(lambda node, _: setattr(node, "tag", "strange"))
        yield changed(lambda node, _: node.set("strange", "1"))
        yield changed(lambda node, _: setattr(node, "text", (node.text or "") + "stray"))
        yield changed(lambda node, _: node.append(ElementTree.Element("strange")))
        if len(element):
            yield changed(lambda node, _: node.remove(node[0]))
        if place:
            yield changed(lambda node, parent: parent.remove(node))
            yield changed(lambda node, parent: parent.append(copy.deepcopy(node)))
            yield changed(lambda node, parent: node.append(copy.deepcopy(node)))
        for name in element.attrib:
            yield changed(lambda node, _, name=name: node.attrib.pop(name))
            for value in ("", "1", "a b", " mon", "x,y"):
                yield changed(lambda node, _, name=name, value=value: node.set(name, value))


class WholeFiles(Judged):
    def files(self):
        return {**forms.samples(), **forms.examples()}

    def test_samples_and_examples_are_valid_and_load(self):
        kinds = []
        for name, text in self.files().items():
            kind = forms.kind_of(text)
            kinds.append(kind)
            with self.subTest(file=str(name)):
                self.assertEqual(self.judge(kind, [text])[0][1:], ("ok", "ok"))
        for kind in forms.KINDS:
            self.assertIn(kind, kinds)

    def test_one_change_anywhere_is_judged_alike_as_far_as_a_schema_can(self):
        texts = {kind: set() for kind in forms.KINDS}
        for text in self.files().values():
            texts[forms.kind_of(text)].update(changes(ElementTree.fromstring(text)))
        for kind, changed in texts.items():
            judged = self.judge(kind, sorted(changed))
            for text, read, valid in judged:
                if (read == "ok") == (valid == "ok"):
                    continue
                self.assertEqual(valid, "ok", f"the schema alone refuses\n{text}")
                if not re.search(BEYOND_A_SCHEMA[kind], read):
                    self.fail(f"the gateway alone refuses: {read}\n{text}")
            taken = sum(read == "ok" for _, read, _ in judged)
            print(f"{kind}: {len(judged)} changed files, of which the gateway takes {taken}")
            self.assertGreater(taken, 0)


if __name__ == "__main__":
    unittest.main()
