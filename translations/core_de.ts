<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>LoggerWidget</name>
    <message>
        <source>logger</source>
        <translation>Protokoll</translation>
    </message>
</context>
<context>
    <name>ZtKernel</name>
    <message>
        <source>Read config from </source>
        <translation>Konfiguration gelesen aus </translation>
    </message>
    <message>
        <source>can&apos;t load </source>
        <translation>Kann nicht laden: </translation>
    </message>
    <message>
        <source> plugin, file not exists</source>
        <translation> (Plug-in), Datei existiert nicht</translation>
    </message>
    <message>
        <source> plugin</source>
        <translation> (Plug-in)</translation>
    </message>
    <message>
        <source>the plugin does not implement </source>
        <translation>das Plug-in implementiert nicht </translation>
    </message>
    <message>
        <source>Unknown interface </source>
        <translation>Unbekannte Schnittstelle </translation>
    </message>
    <message>
        <source> of module </source>
        <translation> des Moduls </translation>
    </message>
    <message>
        <source>Load module </source>
        <translation>Modul geladen: </translation>
    </message>
    <message>
        <source> to thread  0x%1 (</source>
        <translation> in Thread  0x%1 (</translation>
    </message>
    <message>
        <source> builded:</source>
        <translation> erstellt:</translation>
    </message>
    <message>
        <source>Create menu </source>
        <translation>Menü erstellt: </translation>
    </message>
    <message>
        <source>Create toolbar </source>
        <translation>Werkzeugleiste erstellt: </translation>
    </message>
    <message>
        <source>actions not connected, unknown identifer:</source>
        <translation>Aktionen nicht verbunden, unbekannter Bezeichner:</translation>
    </message>
    <message>
        <source>unknown identifer:</source>
        <translation>unbekannter Bezeichner:</translation>
    </message>
</context>
</TS>
