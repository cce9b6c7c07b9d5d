@echo off
rem The arguments as received and, for -filein, the file.
echo args=%*
if "%~1"=="-filein" type "%~2"
