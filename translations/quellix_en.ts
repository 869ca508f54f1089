<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en" sourcelanguage="de">
<context>
    <name>AboutView</name>
    <message>
        <source>Ruhe verschafft</source>
        <translation>of quiet</translation>
    </message>
    <message>
        <source>Ein kostenloses Tool von norvalin</source>
        <translation>A free tool by norvalin</translation>
    </message>
    <message>
        <source>App gemutet</source>
        <translation>app muted</translation>
    </message>
    <message>
        <source>Apps gemutet</source>
        <translation>apps muted</translation>
    </message>
    <message>
        <source>Version %1</source>
        <translation>Version %1</translation>
    </message>
</context>
<context>
    <name>AppRowView</name>
    <message>
        <source>Lautstärke von %1</source>
        <translation>Volume of %1</translation>
    </message>
    <message>
        <source>%1 wieder hörbar machen</source>
        <translation>Unmute %1</translation>
    </message>
    <message>
        <source>%1 stummschalten</source>
        <translation>Mute %1</translation>
    </message>
</context>
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
    <name>ControlCommand</name>
    <message>
        <source>Quellix läuft nicht.</source>
        <translation>Quellix is not running.</translation>
    </message>
</context>
<context>
    <name>MenuBarView</name>
    <message>
        <source>Vorheriger Titel</source>
        <translation>Previous Track</translation>
    </message>
    <message>
        <source>Wiedergabe/Pause</source>
        <translation>Play/Pause</translation>
    </message>
    <message>
        <source>Nächster Titel</source>
        <translation>Next Track</translation>
    </message>
    <message>
        <source>Gesamtlautstärke</source>
        <translation>Master volume</translation>
    </message>
    <message>
        <source>Sobald eine App Ton ausgibt,
erscheint sie hier.</source>
        <translation>As soon as an app plays sound,
it appears here.</translation>
    </message>
    <message>
        <source>Bei Anmeldung starten</source>
        <translation>Start at login</translation>
    </message>
    <message>
        <source>Über Quellix</source>
        <translation>About Quellix</translation>
    </message>
    <message>
        <source>Beenden</source>
        <translation>Quit</translation>
    </message>
    <message>
        <source>Keine App spielt gerade Audio</source>
        <translation>No app is playing audio</translation>
    </message>
    <message>
        <source>%1 von %2 stummgeschaltet</source>
        <translation>%1 of %2 muted</translation>
    </message>
    <message>
        <source>1 App mit Audio</source>
        <translation>1 app with audio</translation>
    </message>
    <message>
        <source>%1 Apps mit Audio</source>
        <translation>%1 apps with audio</translation>
    </message>
    <message>
        <source>System-Ton wieder einschalten</source>
        <translation>Unmute system sound</translation>
    </message>
    <message>
        <source>System stummschalten</source>
        <translation>Mute system</translation>
    </message>
    <message>
        <source>Alle wieder laut</source>
        <translation>Unmute All</translation>
    </message>
    <message>
        <source>Alle stummschalten</source>
        <translation>Mute All</translation>
    </message>
    <message>
        <source>Update verfügbar: Version %1</source>
        <translation>Update available: version %1</translation>
    </message>
    <message>
        <source>Optionen für %1</source>
        <translation>Options for %1</translation>
    </message>
    <message>
        <source>Standardausgabe</source>
        <translation>Default Output</translation>
    </message>
    <message>
        <source>%1 (nicht verbunden)</source>
        <translation>%1 (not connected)</translation>
    </message>
    <message>
        <source>Nur diese hören</source>
        <translation>Hear Only This</translation>
    </message>
</context>
<context>
    <name>OnboardingView</name>
    <message>
        <source>Zurück</source>
        <translation>Back</translation>
    </message>
    <message>
        <source>Willkommen bei Quellix</source>
        <translation>Welcome to Quellix</translation>
    </message>
    <message>
        <source>Dein Computer hat einen Lautstärkeregler für alles.
Ab jetzt hat jede App ihren eigenen.</source>
        <translation>Your computer has one volume control for everything.
From now on, every app has its own.</translation>
    </message>
    <message>
        <source>So funktioniert&apos;s</source>
        <translation>How it works</translation>
    </message>
    <message>
        <source>Panel öffnen</source>
        <translation>Open the panel</translation>
    </message>
    <message>
        <source>Klicke im Statusbereich deiner Systemleiste auf das Lautsprecher-Symbol. Jede App, die gerade Ton ausgibt, erscheint in der Liste.</source>
        <translation>Click the speaker icon in your panel. Every app that is playing sound appears in the list.</translation>
    </message>
    <message>
        <source>App stummschalten</source>
        <translation>Mute an app</translation>
    </message>
    <message>
        <source>Ein Klick auf die Zeile mutet genau diese App. Alle anderen laufen normal weiter, nochmal klicken macht sie wieder hörbar.</source>
        <translation>One click on its row mutes exactly that app. All others keep playing; click again to hear it again.</translation>
    </message>
    <message>
        <source>Fein regeln</source>
        <translation>Fine-tune</translation>
    </message>
    <message>
        <source>Der Slider unter jeder App regelt ihre Lautstärke einzeln, der obere Regler die Gesamtlautstärke.</source>
        <translation>The slider under each app sets its own volume; the one at the top sets the master volume.</translation>
    </message>
    <message>
        <source>Musik direkt steuern</source>
        <translation>Control your music</translation>
    </message>
    <message>
        <source>Play, Pause und Skip direkt aus dem Panel.
Funktioniert wie die Medientasten deiner Tastatur,
egal ob Musik, Spotify oder ein Browser-Tab spielt.</source>
        <translation>Play, pause and skip right from the panel.
Works like the media keys on your keyboard,
whether a music player, Spotify or a browser tab is playing.</translation>
    </message>
    <message>
        <source>Berechtigung erteilt</source>
        <translation>Permission granted</translation>
    </message>
    <message>
        <source>Berechtigung erteilen</source>
        <translation>Grant Permission</translation>
    </message>
    <message>
        <source>Fragt dein Desktop, ob Quellix Medienplayer steuern darf,
erlaube es, damit die Medientasten sie erreichen.</source>
        <translation>Your desktop may ask whether Quellix may control media players.
Allow it so that the media buttons can reach them.</translation>
    </message>
    <message>
        <source>Immer griffbereit</source>
        <translation>Always at hand</translation>
    </message>
    <message>
        <source>Quellix wartet still in der Systemleiste
und braucht dabei praktisch keine Ressourcen.</source>
        <translation>Quellix waits quietly in your panel
and needs next to no resources while it does.</translation>
    </message>
    <message>
        <source>Bei Anmeldung automatisch starten</source>
        <translation>Start automatically at login</translation>
    </message>
    <message>
        <source>Eine App von norvalin</source>
        <translation>An app by norvalin</translation>
    </message>
    <message>
        <source>Weiter</source>
        <translation>Continue</translation>
    </message>
    <message>
        <source>Los geht&apos;s</source>
        <translation>Let&apos;s Go</translation>
    </message>
</context>
<context>
    <name>QuellixApp</name>
    <message>
        <source>Quellix öffnen</source>
        <translation>Open Quellix</translation>
    </message>
    <message>
        <source>Über Quellix</source>
        <translation>About Quellix</translation>
    </message>
    <message>
        <source>Beenden</source>
        <translation>Quit</translation>
    </message>
    <message>
        <source>Aktuellen Mediaplayer stummschalten oder wieder hörbar machen</source>
        <translation>Mute or unmute the current media player</translation>
    </message>
    <message>
        <source>Alle wieder hörbar machen</source>
        <translation>Unmute all</translation>
    </message>
</context>
<context>
    <name>RemoteControl</name>
    <message>
        <source>Quellix startet noch.</source>
        <translation>Quellix is still starting.</translation>
    </message>
    <message>
        <source>Keine Anwendung „%1“ spielt gerade Ton.</source>
        <translation>No application “%1” is playing sound.</translation>
    </message>
    <message>
        <source>„%1“ passt auf mehrere Anwendungen: %2</source>
        <translation>“%1” matches more than one application: %2</translation>
    </message>
    <message>
        <source>Die Lautstärke muss eine Zahl von 0 bis 100 sein, nicht „%1“.</source>
        <translation>The volume must be a number from 0 to 100, not “%1”.</translation>
    </message>
</context>
<context>
    <name>SelfMover</name>
    <message>
        <source>Quellix in den Ordner ~/Applications verschieben?</source>
        <translation>Move Quellix to your Applications folder?</translation>
    </message>
    <message>
        <source>Quellix läuft gerade aus dem Ordner, in den es geladen oder kopiert wurde. Empfohlen: einmal nach ~/Applications in deinem Home-Ordner verschieben, dann startet es künftig von dort und erscheint bei deinen Programmen.</source>
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
        <source>Bitte verschiebe den Ordner Quellix selbst nach ~/Applications.</source>
        <translation>Please move the Quellix folder into ~/Applications yourself.</translation>
    </message>
</context>
</TS>
