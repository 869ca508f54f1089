<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en" sourcelanguage="de">
<context>
    <name>AppState</name>
    <message>
        <source>Willkommen bei Quellix</source>
        <translation>Welcome to Quellix</translation>
    </message>
    <message>
        <source>Über Quellix</source>
        <translation>About Quellix</translation>
    </message>
</context>
<context>
    <name>SelfMover</name>
    <message>
        <source>Quellix in den Programme-Ordner verschieben?</source>
        <translation>Move Quellix to your Applications folder?</translation>
    </message>
    <message>
        <source>Quellix läuft gerade vom Installations-Image. Empfohlen: einmal in den Programme-Ordner verschieben, dann startet es künftig direkt von dort.</source>
        <translation>Quellix is running from the folder it was downloaded or copied to. Recommended: move it once to the Applications folder in your home folder (~/Applications); from then on it starts from there and appears among your applications.</translation>
    </message>
    <message>
        <source>Verschieben und starten</source>
        <translation>Move and Start</translation>
    </message>
    <message>
        <source>Später</source>
        <translation>Later</translation>
    </message>
    <message>
        <source>Verschieben fehlgeschlagen</source>
        <translation>Moving failed</translation>
    </message>
    <message>
        <source>Bitte zieh Quellix manuell in den Programme-Ordner.</source>
        <translation>Please move the Quellix folder into ~/Applications yourself.</translation>
    </message>
</context>
</TS>
