@echo off
rem Lines as a command prints them: a blank-only line, an empty one, trailing white space.
echo first line
echo.   
echo.
echo last line  	
