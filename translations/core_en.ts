<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en">
<context>
    <name>LoggerWidget</name>
    <message>
        <source>logger</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>ZtKernel</name>
    <message>
        <source>Read config from </source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>can&apos;t load </source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source> plugin, file not exists</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source> plugin</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>the plugin does not implement </source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Unknown interface </source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source> of module </source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Load module </source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source> to thread  0x%1 (</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source> builded:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Create menu </source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Create toolbar </source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>actions not connected, unknown identifer:</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>unknown identifer:</source>
        <translation type="unfinished"></translation>
    </message>
</context>
</TS>
